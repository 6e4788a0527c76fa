// SPDX-License-Identifier: Apache-2.0
// Finds blocks of the device's old file in the new one, at any offset.
#ifndef RUNEL_TRANSFER_DELTA_BLOCK_SEARCH_H_
#define RUNEL_TRANSFER_DELTA_BLOCK_SEARCH_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <runel/error.h>

#include "client/transfer/delta/rolling_checksum.h"

namespace runel {

/// Bytes of one file.
struct FileRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;

  [[nodiscard]] std::uint64_t size() const { return end - begin; }
  bool operator==(const FileRange& other) const { return begin == other.begin && end == other.end; }
};

/// Bytes of the new file at `at` that seem to be those of the old file at `from`.
struct BlockMatch {
  std::uint64_t at = 0;
  std::uint64_t from = 0;
  std::uint64_t length = 0;

  bool operator==(const BlockMatch& other) const {
    return at == other.at && from == other.from && length == other.length;
  }
};

/// The blocks of one length.
class BlockTable {
 public:
  explicit BlockTable(std::size_t length) : length_(length) {}
  /// Adds the block of the old file at @p offset. @p sum is what the device's cksum prints for it.
  void add(std::uint64_t offset, std::uint32_t sum);
  /// To be called after the last `add`.
  void prepare();

  [[nodiscard]] std::size_t length() const { return length_; }
  [[nodiscard]] bool empty() const { return blocks_.empty(); }
  /// False if no block has this @p state; quick.
  [[nodiscard]] bool mayHave(std::uint32_t state) const { return filter_[state & mask_]; }
  /// The offset of a block with this @p state. Of equal blocks, the one at @p next, or else at
  /// @p same, or else the first one.
  [[nodiscard]] std::optional<std::uint64_t> find(std::uint32_t state, std::uint64_t next,
                                                  std::uint64_t same) const;

 private:
  [[nodiscard]] bool has(std::uint32_t state, std::uint64_t offset) const;

  std::size_t length_;
  std::vector<std::pair<std::uint32_t, std::uint64_t>> blocks_;  // state, offset; sorted
  std::vector<char> filter_;
  std::uint32_t mask_ = 0;
};

/// A search through parts of the new file. It works in short steps, so that the caller can serve
/// other devices in between.
class BlockSearch {
 public:
  /// Reads a part of the new file.
  using Read = std::function<std::optional<Error>(std::uint64_t offset, std::size_t count,
                                                  std::string& bytes)>;

  /// Searches @p gaps for the blocks of @p table.
  BlockSearch(BlockTable table, Read read, std::vector<FileRange> gaps);

  /// Searches about 1 MiB. Returns false at the end and after an error.
  bool step();
  /// What was found, in the order of the new file, without overlaps.
  [[nodiscard]] const std::vector<BlockMatch>& matches() const { return matches_; }
  [[nodiscard]] const std::optional<Error>& error() const { return error_; }

 private:
  bool load(std::size_t most);
  void searchBuffer();
  [[nodiscard]] bool matchAt(std::uint32_t state, std::uint64_t at);

  const BlockTable table_;
  const RollingChecksum rolling_;
  const Read read_;
  const std::vector<FileRange> gaps_;
  std::size_t gap_ = 0;
  std::uint64_t at_ = 0;  // in the new file
  bool follows_ = false;  // a match ends at `at_`
  std::string buffer_;    // of the new file, from `at_`
  std::vector<BlockMatch> matches_;
  std::optional<Error> error_;
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_DELTA_BLOCK_SEARCH_H_
