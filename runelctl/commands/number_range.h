// SPDX-License-Identifier: Apache-2.0
// Ranges of numeric options.
#ifndef RUNELCTL_COMMANDS_NUMBER_RANGE_H_
#define RUNELCTL_COMMANDS_NUMBER_RANGE_H_

#include <CLI/CLI.hpp>

namespace runelctl {

/// Accepts numbers from @p least to @p most, and does not print the range in the help.
template <typename Number>
[[nodiscard]] CLI::Validator numberRange(Number least, Number most) {
  CLI::Validator range = CLI::Range(least, most);
  range.description("");
  return range;
}

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_NUMBER_RANGE_H_
