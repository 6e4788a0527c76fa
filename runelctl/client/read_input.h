// SPDX-License-Identifier: Apache-2.0
// Standard input, whole.
#ifndef ZELL_RUNELCTL_CLIENT_READ_INPUT_H_
#define ZELL_RUNELCTL_CLIENT_READ_INPUT_H_

#include <string>

namespace zell::ctl {

/// Reads standard input to its end into @p content. The reason when that cannot be done, or when
/// it is more than one task can carry; empty otherwise.
[[nodiscard]] std::string readInput(std::string& content);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_READ_INPUT_H_
