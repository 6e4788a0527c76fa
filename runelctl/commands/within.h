// SPDX-License-Identifier: Apache-2.0
// Ranges of numeric options.
#ifndef ZELL_RUNELCTL_COMMANDS_WITHIN_H_
#define ZELL_RUNELCTL_COMMANDS_WITHIN_H_

#include <CLI/CLI.hpp>

namespace zell::ctl {

/// Accepts numbers from @p least to @p most, and does not print the range in the help.
template <typename Number>
[[nodiscard]] CLI::Validator within(Number least, Number most) {
  CLI::Validator range = CLI::Range(least, most);
  range.description("");
  return range;
}

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_WITHIN_H_
