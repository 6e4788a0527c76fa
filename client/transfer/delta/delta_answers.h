// SPDX-License-Identifier: Apache-2.0
// The parsers of what a device answers to the shell texts of a delta.
#ifndef RUNEL_TRANSFER_DELTA_DELTA_ANSWERS_H_
#define RUNEL_TRANSFER_DELTA_DELTA_ANSWERS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace runel {

/// The answer to `askForTools`.
struct DeltaTools {
  std::string missing;                     ///< a utility; empty if none is missing
  std::optional<std::uint64_t> freeBytes;  ///< without a value if the device does not tell it
};
/// Empty for other texts.
[[nodiscard]] std::optional<DeltaTools> parseTools(std::string_view text);

/// Parses the output of cksum for @p count blocks of @p length bytes. Empty for another number of
/// blocks, another length, and other texts.
[[nodiscard]] std::optional<std::vector<std::uint32_t>> parseSums(std::string_view text,
                                                                  std::uint64_t count,
                                                                  std::size_t length);

}  // namespace runel

#endif  // RUNEL_TRANSFER_DELTA_DELTA_ANSWERS_H_
