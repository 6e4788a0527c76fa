// SPDX-License-Identifier: Apache-2.0
// Reads standard input, or a small file, completely.
#ifndef RUNELCTL_COMMANDS_READ_INPUT_H_
#define RUNELCTL_COMMANDS_READ_INPUT_H_

#include <string>

namespace runelctl {

/// Reads standard input to its end into @p content. Returns the error, also for more data than one
/// task can carry; empty for success.
[[nodiscard]] std::string readInput(std::string& content);

/// Reads the text file @p path, or standard input for "-". Returns the error as above.
[[nodiscard]] std::string readText(const std::string& path, std::string& content);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_READ_INPUT_H_
