// SPDX-License-Identifier: Apache-2.0
#ifndef RUNELCTL_COMMANDS_GZIP_H_
#define RUNELCTL_COMMANDS_GZIP_H_

#include <string>
#include <string_view>

namespace runelctl {

/// @p bytes as a gzip file. Empty if there is not enough memory.
[[nodiscard]] std::string gzip(std::string_view bytes);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_GZIP_H_
