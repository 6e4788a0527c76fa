// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/delta/block_search.h"

#include <algorithm>

namespace runel {
namespace {

constexpr std::size_t kSearchStride = 1048576;
// A few of 1,000 other states pass the filter. The largest one fits in the second-level cache.
constexpr std::size_t kFilterPerBlock = 256;
constexpr std::size_t kLeastFilter = 16384;
constexpr std::size_t kMostFilter = 262144;

}  // namespace

void BlockTable::add(std::uint64_t offset, std::uint32_t sum) {
  blocks_.emplace_back(stateOfCksum(sum, length_), offset);
}

void BlockTable::prepare() {
  std::sort(blocks_.begin(), blocks_.end());
  std::size_t size = kLeastFilter;
  while (size < kMostFilter && size < blocks_.size() * kFilterPerBlock) {
    size *= 2;
  }
  filter_.assign(size, 0);
  mask_ = static_cast<std::uint32_t>(size - 1);
  for (const auto& block : blocks_) {
    filter_[block.first & mask_] = 1;
  }
}

bool BlockTable::has(std::uint32_t state, std::uint64_t offset) const {
  return std::binary_search(blocks_.begin(), blocks_.end(), std::make_pair(state, offset));
}

std::optional<std::uint64_t> BlockTable::find(std::uint32_t state, std::uint64_t next,
                                              std::uint64_t same) const {
  for (const std::uint64_t wanted : {next, same}) {
    if (has(state, wanted)) {
      return wanted;
    }
  }
  const auto first =
      std::lower_bound(blocks_.begin(), blocks_.end(), std::make_pair(state, std::uint64_t{0}));
  const bool found = first != blocks_.end() && first->first == state;
  return found ? std::make_optional(first->second) : std::nullopt;
}

BlockSearch::BlockSearch(BlockTable table, Read read, std::vector<FileRange> gaps)
    : table_(std::move(table)),
      rolling_(table_.length()),
      read_(std::move(read)),
      gaps_(std::move(gaps)),
      at_(gaps_.empty() ? 0 : gaps_.front().begin) {}

bool BlockSearch::step() {
  // After a match a further match is likely to follow: then the bytes behind it are not needed.
  const std::size_t more = follows_ ? 0 : kSearchStride;
  while (gap_ < gaps_.size() && gaps_[gap_].end - at_ < table_.length()) {
    ++gap_;
    at_ = gap_ < gaps_.size() ? gaps_[gap_].begin : 0;
    follows_ = false;
  }
  if (gap_ == gaps_.size() || table_.empty() || !load(table_.length() + more)) {
    return false;
  }
  searchBuffer();
  return true;
}

bool BlockSearch::load(std::size_t most) {
  const std::uint64_t rest = gaps_[gap_].end - at_;
  error_ = read_(at_, static_cast<std::size_t>(std::min<std::uint64_t>(rest, most)), buffer_);
  return !error_;
}

void BlockSearch::searchBuffer() {
  const std::size_t length = table_.length();
  const std::size_t last = buffer_.size() - length;
  const char* const bytes = buffer_.data();
  std::uint32_t state = crcState({bytes, length});
  for (std::size_t i = 0; !(table_.mayHave(state) && matchAt(state, at_ + i)); ++i) {
    if (i == last) {
      // The next step begins here again if it was called only to try this one place.
      at_ += follows_ ? 0 : last + 1;
      follows_ = false;
      return;
    }
    state = rolling_.roll(state, bytes[i], bytes[i + length]);
  }
}

bool BlockSearch::matchAt(std::uint32_t state, std::uint64_t at) {
  const std::uint64_t next =
      matches_.empty() ? at : matches_.back().from + (at - matches_.back().at);
  const std::optional<std::uint64_t> from = table_.find(state, next, at);
  if (!from) {
    return false;
  }
  matches_.push_back({at, *from, table_.length()});
  at_ = at + table_.length();
  follows_ = true;
  return true;
}

}  // namespace runel
