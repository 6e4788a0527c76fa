// SPDX-License-Identifier: Apache-2.0
// How what is found out is shown: to people or to programs, in colours or not.
#ifndef ZELL_RUNELCTL_OUTPUT_STYLE_H_
#define ZELL_RUNELCTL_OUTPUT_STYLE_H_

#include <string>
#include <string_view>

namespace zell::ctl {

struct Style {
  bool json = false;
  bool quiet = false;
  bool colours = false;      ///< on standard error
  bool outTerminal = false;  ///< standard output is one
  bool errTerminal = false;

  /// A name as standard output should carry it: escaped for a terminal, exact for a pipe.
  [[nodiscard]] std::string name(std::string_view bytes) const;
  /// An error's text, in red where that is wanted.
  [[nodiscard]] std::string red(const std::string& text) const;
};

/// The style of a run. @p colour is "auto", "always" or "never"; NO_COLOR is heard for "auto".
[[nodiscard]] Style styleFor(bool json, bool quiet, const std::string& colour);

/// Columns of the terminal on standard error, 80 when it does not say.
[[nodiscard]] std::size_t terminalColumns();

/// Writes all of @p bytes to @p fd. False with errno.
bool writeAll(int fd, std::string_view bytes);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_OUTPUT_STYLE_H_
