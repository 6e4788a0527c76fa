// SPDX-License-Identifier: Apache-2.0
// The way of all output to standard output, and of the output of programs to standard error.
#ifndef RUNELCTL_OUTPUT_STANDARD_OUTPUT_H_
#define RUNELCTL_OUTPUT_STANDARD_OUTPUT_H_

#include <string>
#include <string_view>

#include "output/style.h"
#include "output/terminal_text.h"

namespace runelctl {

/// Writes to standard output. Nothing else in this program does, so that no byte of a device
/// reaches a terminal unescaped. To a pipe or a file, all bytes are written unchanged.
class StandardOutput {
 public:
  explicit StandardOutput(const Style& style) : terminal_(style.outTerminal) {}

  /// Writes @p bytes, a part of a text. Returns false with errno on failure.
  [[nodiscard]] bool write(std::string_view bytes);
  /// Ends the text, so that its last bytes are not joined with those of the next one. Returns false
  /// with errno on failure.
  [[nodiscard]] bool endText();

  /// The form in which @p text may be written to standard output, for a caller that writes it
  /// without blocking.
  [[nodiscard]] static std::string visible(const Style& style, std::string_view text);
  [[nodiscard]] static int descriptor();

 private:
  const bool terminal_;
  TerminalText visible_;
};

/// Writes to standard error what a program has written there. An error cannot be reported.
class StandardError {
 public:
  explicit StandardError(const Style& style) : terminal_(style.errTerminal) {}

  void write(std::string_view bytes);
  /// Ends the text, like `StandardOutput::endText`.
  void endText();

 private:
  const bool terminal_;
  TerminalText visible_;
};

/// Writes a complete text to standard output. Returns false with errno on failure.
[[nodiscard]] bool writeOut(const Style& style, std::string_view text);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_STANDARD_OUTPUT_H_
