// SPDX-License-Identifier: Apache-2.0
// Bytes typed by hand.
#ifndef ZELL_RUNELCTL_COMMANDS_RAW_TEXT_H_
#define ZELL_RUNELCTL_COMMANDS_RAW_TEXT_H_

#include <string>
#include <string_view>

namespace zell::ctl {

/// Reads @p text with \n, \t, \r, \\ and \xNN in it into @p bytes. False for any other backslash.
[[nodiscard]] bool readRawText(std::string_view text, std::string& bytes);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_RAW_TEXT_H_
