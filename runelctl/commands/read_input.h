// SPDX-License-Identifier: Apache-2.0
// Reads standard input completely.
#ifndef RUNELCTL_COMMANDS_READ_INPUT_H_
#define RUNELCTL_COMMANDS_READ_INPUT_H_

#include <string>

namespace runelctl {

/// Reads standard input to its end into @p content. Returns the error, also for more data than one
/// task can carry; empty for success.
[[nodiscard]] std::string readInput(std::string& content);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_READ_INPUT_H_
