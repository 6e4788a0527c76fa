// SPDX-License-Identifier: Apache-2.0
#ifndef RUNELCTL_COMMANDS_BZIP2_H_
#define RUNELCTL_COMMANDS_BZIP2_H_

#include <string>
#include <string_view>

namespace runelctl {

/// @p bytes as a bzip2 file, as small as possible. Empty if there is not enough memory.
[[nodiscard]] std::string bzip2(std::string_view bytes);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_BZIP2_H_
