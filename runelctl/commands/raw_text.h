// SPDX-License-Identifier: Apache-2.0
// Parses bytes with escapes from the command line.
#ifndef RUNELCTL_COMMANDS_RAW_TEXT_H_
#define RUNELCTL_COMMANDS_RAW_TEXT_H_

#include <string>
#include <string_view>

namespace runelctl {

/// Replaces the escapes \n, \t, \r, \\ and \xNN of @p text and stores the result in @p bytes.
/// Returns false for any other escape.
[[nodiscard]] bool readRawText(std::string_view text, std::string& bytes);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_RAW_TEXT_H_
