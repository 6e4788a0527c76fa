// SPDX-License-Identifier: Apache-2.0
// Makes the bytes of a device safe for a terminal.
#ifndef RUNELCTL_OUTPUT_TERMINAL_TEXT_H_
#define RUNELCTL_OUTPUT_TERMINAL_TEXT_H_

#include <string>
#include <string_view>

namespace runelctl {

/// Escapes what a terminal could interpret: control characters, invalid UTF-8, marks that change
/// the text direction, and the backslash. The result is always one line.
[[nodiscard]] std::string terminalSafe(std::string_view bytes);

/// The same for JSON: the characters become escapes of JSON strings.
[[nodiscard]] std::string terminalSafeJson(std::string_view line);

/// The same for a text of many lines that arrives in parts. Printable UTF-8, tabs, line ends and
/// backslashes stay as they are.
class TerminalText {
 public:
  /// The visible form of @p bytes. An incomplete character or a carriage return at the end is kept
  /// until the next part shows what it is.
  [[nodiscard]] std::string add(std::string_view bytes);
  /// The visible form of what was kept: the text has ended.
  [[nodiscard]] std::string end();

 private:
  std::string kept_;
};

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_TERMINAL_TEXT_H_
