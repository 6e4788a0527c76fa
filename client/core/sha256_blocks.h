// SPDX-License-Identifier: Apache-2.0
// The inner function of SHA-256, which takes most of the time.
#ifndef RUNEL_CORE_SHA256_BLOCKS_H_
#define RUNEL_CORE_SHA256_BLOCKS_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace runel {

using Sha256State = std::array<std::uint32_t, 8>;
/// Adds @p blocks blocks of 64 bytes at @p data to @p state.
using Sha256Blocks = void (*)(Sha256State& state, const unsigned char* data, std::size_t blocks);

/// For any processor.
void portableSha256Blocks(Sha256State& state, const unsigned char* data, std::size_t blocks);
/// The fastest one for this processor.
[[nodiscard]] Sha256Blocks sha256Blocks();

}  // namespace runel

#endif  // RUNEL_CORE_SHA256_BLOCKS_H_
