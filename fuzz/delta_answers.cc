// SPDX-License-Identifier: Apache-2.0
// What a device answers about its old file: the utilities, the checksums of blocks, their digests.
// Any answer is refused or gives a plan that makes all of the new file, of bytes that both files
// have.
//
// The input is a byte with the number of blocks, the length of a text, the text, and the new file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "client/transfer/checksums.h"
#include "client/transfer/delta/block_search.h"
#include "client/transfer/delta/delta_answers.h"
#include "client/transfer/delta/delta_plan.h"
#include "client/transfer/delta/delta_transfer.h"
#include "fuzz.h"

namespace {

using runel::BlockMatch;
using zell::fuzz::require;

constexpr std::size_t kBlock = 4;

void searchFor(const std::vector<std::uint32_t>& sums, std::string_view fresh) {
  runel::BlockTable table(kBlock);
  for (std::size_t i = 0; i < sums.size(); ++i) {
    table.add(i * kBlock, sums[i]);
  }
  table.prepare();
  const auto read = [fresh](std::uint64_t at, std::size_t count, std::string& bytes) {
    bytes = fresh.substr(static_cast<std::size_t>(at), count);
    require(bytes.size() == count);
    return std::optional<runel::Error>();
  };
  runel::DeltaPlan plan(0, fresh.size());
  runel::BlockSearch search(std::move(table), read, plan.gaps());
  for (std::size_t steps = 0; search.step(); ++steps) {
    require(steps <= 2 * fresh.size());
  }
  plan.add(search.matches());
  for (const BlockMatch& doubt : plan.doubtful()) {
    plan.remove(doubt);
  }
  std::uint64_t made = 0;
  for (const runel::DeltaSegment& segment : plan.segments()) {
    require(segment.length != 0);
    require(segment.kept ? segment.from + segment.length <= sums.size() * kBlock
                         : segment.from == made && segment.from + segment.length <= fresh.size());
    made += segment.length;
  }
  require(made == fresh.size());
}

// Blocks to read lie in the old file, of any size.
void refine(std::uint64_t size, std::uint64_t oldSize) {
  runel::DeltaPlan plan(0, size);
  plan.add({{size / 3, oldSize / 2, size / 5}});
  for (const std::size_t last : {std::size_t{524288}, runel::kMiddleBlock}) {
    for (const runel::FileRange& range : plan.refine(last, oldSize).ranges) {
      require(range.begin < range.end && range.end <= oldSize);
    }
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  if (input.size() < 2) {
    return 0;
  }
  const std::size_t count = data[0] % 64;
  const std::string_view text = input.substr(2, data[1]);
  const std::string_view fresh = input.substr(std::min(input.size(), 2 + text.size()));
  if (const auto tools = runel::parseTools(text)) {
    require(tools->missing.empty() || !tools->freeBytes);
  }
  if (const auto sums = runel::parseSums(text, count, kBlock)) {
    require(sums->size() == count);
    searchFor(*sums, fresh);
  }
  if (const auto digests = runel::parseChecksums(text, count)) {
    require(digests->size() == count);
  }
  refine(std::uint64_t{data[0]} << (data[1] % 30U), std::uint64_t{data[1]} << (data[0] % 30U));
  return 0;
}
