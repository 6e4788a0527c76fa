// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/delta/delta_plan.h"

#include <algorithm>
#include <iterator>

namespace runel {
namespace {

// About 6 s of work for a small device.
constexpr std::uint64_t kMostShortBlocks = 4096;
// With more short blocks than this, the middle ones are tried first: they cost a round trip.
constexpr std::uint64_t kFewShortBlocks = 48;
constexpr std::size_t kLeastLongBlock = 524288;
constexpr std::size_t kMostLongBlock = 2097152;
constexpr std::uint64_t kManyLongBlocks = 32;
// Between two matches, the old file is searched a little further.
constexpr std::uint64_t kNear = 524288;

std::uint64_t displacement(const BlockMatch& match) {
  return match.from - match.at;  // wraps around
}

bool continues(const BlockMatch& run, const BlockMatch& next) {
  return run.at + run.length == next.at && displacement(run) == displacement(next);
}

// Joins ranges that touch or overlap.
std::vector<FileRange> united(std::vector<FileRange> ranges) {
  std::sort(ranges.begin(), ranges.end(),
            [](const FileRange& a, const FileRange& b) { return a.begin < b.begin; });
  std::vector<FileRange> joined;
  for (const FileRange& range : ranges) {
    if (!joined.empty() && range.begin <= joined.back().end) {
      joined.back().end = std::max(joined.back().end, range.end);
    } else {
      joined.push_back(range);
    }
  }
  return joined;
}

// @p from without @p used. Both are sorted and without overlaps.
std::vector<FileRange> without(const std::vector<FileRange>& from,
                               const std::vector<FileRange>& used) {
  std::vector<FileRange> left;
  auto next = used.begin();
  for (FileRange range : from) {
    while (next != used.end() && next->end <= range.begin) {
      ++next;
    }
    for (auto at = next; at != used.end() && at->begin < range.end; ++at) {
      if (range.begin < at->begin) {
        left.push_back({range.begin, at->begin});
      }
      range.begin = std::min(at->end, range.end);
    }
    if (range.begin < range.end) {
      left.push_back(range);
    }
  }
  return left;
}

// The whole blocks in @p ranges, which begin at multiples of their length.
BlockList blocksIn(std::size_t length, const std::vector<FileRange>& ranges, std::uint64_t size) {
  std::vector<FileRange> blocks;
  for (const FileRange& range : ranges) {
    const std::uint64_t begin = range.begin / length * length;
    const std::uint64_t end = std::min((range.end + length - 1) / length, size / length) * length;
    if (begin < end) {
      blocks.push_back({begin, end});
    }
  }
  return {length, united(std::move(blocks))};
}

// The first @p most blocks.
void shorten(BlockList& list, std::uint64_t most) {
  std::vector<FileRange> ranges;
  for (FileRange range : list.ranges) {
    range.end = std::min(range.end, range.begin + most * list.length);
    most -= range.size() / list.length;
    if (range.size() != 0) {
      ranges.push_back(range);
    }
  }
  list.ranges = std::move(ranges);
}

}  // namespace

std::size_t longBlock(std::uint64_t size) {
  std::size_t length = kLeastLongBlock;
  while (length < kMostLongBlock && size / length > kManyLongBlocks) {
    length *= 2;
  }
  return length;
}

std::uint64_t BlockList::count() const {
  std::uint64_t blocks = 0;
  for (const FileRange& range : ranges) {
    blocks += range.size() / length;
  }
  return blocks;
}

void DeltaPlan::add(const std::vector<BlockMatch>& matches) {
  for (const BlockMatch& match : matches) {
    matches_.emplace(match.at, match);
  }
}

void DeltaPlan::remove(const BlockMatch& match) {
  matches_.erase(match.at);
}

// Adjacent matches as one.
std::vector<BlockMatch> DeltaPlan::runs() const {
  std::vector<BlockMatch> runs;
  for (const auto& [at, match] : matches_) {
    if (!runs.empty() && continues(runs.back(), match)) {
      runs.back().length += match.length;
    } else {
      runs.push_back(match);
    }
  }
  return runs;
}

std::vector<FileRange> DeltaPlan::gaps() const {
  std::vector<FileRange> found;
  for (const BlockMatch& run : runs()) {
    found.push_back({run.at, run.at + run.length});
  }
  return without({{begin_, end_}}, found);
}

// Around each gap, the old file lies displaced as its neighbours are.
std::vector<FileRange> DeltaPlan::unusedNear(std::uint64_t oldSize) const {
  std::vector<FileRange> used;
  std::vector<FileRange> near;
  const auto addNear = [&](std::uint64_t begin, std::uint64_t end) {
    begin = begin > kNear ? begin - kNear : 0;
    end = std::min(end + kNear, oldSize);
    if (begin < end) {
      near.push_back({begin, end});
    }
  };
  std::uint64_t at = begin_;   // in the new file
  std::uint64_t old = begin_;  // the same place in the old file
  for (const BlockMatch& run : runs()) {
    used.push_back({run.from, run.from + run.length});
    if (at < run.at) {
      addNear(std::min(old, run.from), std::max(old + (run.at - at), run.from));
    }
    at = run.at + run.length;
    old = run.from + run.length;
  }
  if (at < end_) {
    addNear(old, old + (end_ - at));
  }
  return without(united(std::move(near)), united(std::move(used)));
}

BlockList DeltaPlan::refine(std::size_t last, std::uint64_t oldSize) const {
  std::uint64_t searched = 0;
  for (const FileRange& gap : gaps()) {
    searched += gap.size() >= kShortBlock ? gap.size() : 0;
  }
  const bool hopeless = last == kMiddleBlock && matches_.empty();
  if (last == kShortBlock || searched == 0 || hopeless) {
    return {};
  }
  const std::vector<FileRange> unused = unusedNear(oldSize);
  BlockList blocks = blocksIn(kShortBlock, unused, oldSize);
  if (last > kMiddleBlock && blocks.count() > kFewShortBlocks) {
    blocks = blocksIn(kMiddleBlock, unused, oldSize);
  }
  shorten(blocks, kMostShortBlocks);
  return blocks;
}

std::vector<BlockMatch> DeltaPlan::doubtful() const {
  std::vector<BlockMatch> doubts;
  for (auto here = matches_.begin(); here != matches_.end(); ++here) {
    const std::uint64_t shift = displacement(here->second);
    const auto after = std::next(here);
    const bool known =
        shift == 0 ||
        (here != matches_.begin() && displacement(std::prev(here)->second) == shift) ||
        (after != matches_.end() && displacement(after->second) == shift);
    if (!known) {
      doubts.push_back(here->second);
    }
  }
  return doubts;
}

std::vector<DeltaSegment> DeltaPlan::segments() const {
  std::vector<DeltaSegment> segments;
  std::uint64_t at = begin_;
  const auto sendUntil = [&](std::uint64_t end) {
    if (at < end) {
      segments.push_back({false, at, end - at});
    }
  };
  for (const BlockMatch& run : runs()) {
    sendUntil(run.at);
    segments.push_back({true, run.from, run.length});
    at = run.at + run.length;
  }
  sendUntil(end_);
  return segments;
}

std::uint64_t DeltaPlan::kept() const {
  std::uint64_t bytes = 0;
  for (const auto& entry : matches_) {
    bytes += entry.second.length;
  }
  return bytes;
}

}  // namespace runel
