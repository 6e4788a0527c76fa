// SPDX-License-Identifier: Apache-2.0
// The output style: text or JSON, colors, terminals.
#ifndef RUNELCTL_OUTPUT_STYLE_H_
#define RUNELCTL_OUTPUT_STYLE_H_

#include <string>
#include <string_view>

namespace runelctl {

struct Style {
  bool json = false;
  bool quiet = false;
  bool colours = false;      ///< on standard error
  bool outTerminal = false;  ///< standard output is a terminal
  bool errTerminal = false;

  /// A name for standard output: escaped for a terminal, unchanged otherwise.
  [[nodiscard]] std::string name(std::string_view bytes) const;
  /// The text of an error, in red if colors are enabled.
  [[nodiscard]] std::string red(const std::string& text) const;
};

/// The style of a run. @p colour is "auto", "always" or "never". "auto" respects NO_COLOR.
[[nodiscard]] Style styleFor(bool json, bool quiet, const std::string& colour);

/// The number of columns of the terminal on standard error; 80 if unknown.
[[nodiscard]] std::size_t terminalColumns();

/// Writes all of @p bytes to @p fd. Returns false with errno on failure.
bool writeAll(int fd, std::string_view bytes);

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_STYLE_H_
