// SPDX-License-Identifier: Apache-2.0
// Limits for the numbers of the command line.
#ifndef ZELL_RUNELCTL_COMMANDS_WITHIN_H_
#define ZELL_RUNELCTL_COMMANDS_WITHIN_H_

#include <CLI/CLI.hpp>

namespace zell::ctl {

/// Lets numbers from @p least to @p most through, and does not clutter the help with them.
template <typename Number>
[[nodiscard]] CLI::Validator within(Number least, Number most) {
  CLI::Validator range = CLI::Range(least, most);
  range.description("");
  return range;
}

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_WITHIN_H_
