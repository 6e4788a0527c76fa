// SPDX-License-Identifier: Apache-2.0
// The CRC of POSIX cksum, also for a window that moves over a file byte by byte.
#ifndef RUNEL_TRANSFER_DELTA_ROLLING_CHECKSUM_H_
#define RUNEL_TRANSFER_DELTA_ROLLING_CHECKSUM_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace runel {

/// The state of the CRC after @p bytes. The state is 0 at the beginning.
[[nodiscard]] std::uint32_t crcState(std::string_view bytes);

/// What cksum prints for a file of @p length bytes whose content gives @p state: it adds the length
/// to the content.
[[nodiscard]] std::uint32_t cksumOf(std::uint32_t state, std::uint64_t length);
/// The state for which cksum prints @p sum: the inverse of `cksumOf`.
[[nodiscard]] std::uint32_t stateOfCksum(std::uint32_t sum, std::uint64_t length);

/// Moves a window of fixed length. The initial state is 0, so the CRC is linear: the byte that
/// leaves the window is removed by adding its CRC at that distance.
class RollingChecksum {
 public:
  /// For windows of @p length bytes.
  explicit RollingChecksum(std::size_t length);
  /// The state of the window one byte further. @p state is that of the window that begins with
  /// @p leaves, and @p enters follows it.
  [[nodiscard]] std::uint32_t roll(std::uint32_t state, char leaves, char enters) const {
    return (state << 8U) ^ (*entering_)[(state >> 24U) ^ static_cast<unsigned char>(enters)] ^
           leaving_[static_cast<unsigned char>(leaves)];
  }

 private:
  using Table = std::array<std::uint32_t, 256>;

  const Table* entering_;
  Table leaving_{};
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_DELTA_ROLLING_CHECKSUM_H_
