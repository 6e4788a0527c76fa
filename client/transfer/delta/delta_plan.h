// SPDX-License-Identifier: Apache-2.0
// How the new file is made of the old one and of what is sent.
#ifndef RUNEL_TRANSFER_DELTA_DELTA_PLAN_H_
#define RUNEL_TRANSFER_DELTA_DELTA_PLAN_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "client/transfer/delta/block_search.h"

namespace runel {

/// The lengths of blocks. Longer ones are not found where a file has many changes, and shorter ones
/// need more processes on the device.
constexpr std::size_t kMiddleBlock = 131072;
constexpr std::size_t kShortBlock = 16384;
/// The length of the first blocks of an old file of @p size bytes: 512 KiB, and up to 2 MiB for a
/// file that has more than 32 of them.
[[nodiscard]] std::size_t longBlock(std::uint64_t size);

/// Bytes of the new file.
struct DeltaSegment {
  bool kept = false;       ///< bytes of the old file; otherwise sent
  std::uint64_t from = 0;  ///< the offset in the old file if kept, otherwise in the new one
  std::uint64_t length = 0;
};

/// Blocks of the old file, to be summed up by the device.
struct BlockList {
  std::size_t length = 0;         ///< of each block
  std::vector<FileRange> ranges;  ///< multiples of `length`
  [[nodiscard]] std::uint64_t count() const;
};

/// What is known about the bytes of the new file from `begin` on.
class DeltaPlan {
 public:
  DeltaPlan(std::uint64_t begin, std::uint64_t end) : begin_(begin), end_(end) {}

  void add(const std::vector<BlockMatch>& matches);
  void remove(const BlockMatch& match);

  /// The parts of the new file that are not found.
  [[nodiscard]] std::vector<FileRange> gaps() const;
  /// The blocks to search next, shorter than the @p last ones, of an old file of @p oldSize bytes.
  /// They lie where the old file differs: near the gaps, and not found. Empty at the end.
  [[nodiscard]] BlockList refine(std::size_t last, std::uint64_t oldSize) const;
  /// Matches that chance may have brought: of one block, and displaced otherwise than both
  /// neighbours. A checksum of 32 bits that is compared at millions of offsets gives some.
  [[nodiscard]] std::vector<BlockMatch> doubtful() const;

  /// All bytes from the first to the last one, without gaps.
  [[nodiscard]] std::vector<DeltaSegment> segments() const;
  [[nodiscard]] std::uint64_t kept() const;

 private:
  [[nodiscard]] std::vector<BlockMatch> runs() const;
  [[nodiscard]] std::vector<FileRange> unusedNear(std::uint64_t oldSize) const;

  std::uint64_t begin_;
  std::uint64_t end_;
  std::map<std::uint64_t, BlockMatch> matches_;  // by offset in the new file
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_DELTA_DELTA_PLAN_H_
