// SPDX-License-Identifier: Apache-2.0
// Ranges of options that are an amount of data.
#ifndef RUNELCTL_COMMANDS_SIZE_RANGE_H_
#define RUNELCTL_COMMANDS_SIZE_RANGE_H_

#include <cstdint>

#include <CLI/CLI.hpp>

namespace runelctl {

/// Accepts sizes such as 4096 or 16M from @p least to @p most bytes, and replaces them by the
/// number of bytes.
[[nodiscard]] CLI::Validator sizeRange(std::uint64_t least, std::uint64_t most);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_SIZE_RANGE_H_
