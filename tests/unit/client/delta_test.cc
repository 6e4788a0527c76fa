// SPDX-License-Identifier: Apache-2.0
// The parts of a delta that need no device: checksums, search, plan, answers.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "client/transfer/delta/block_search.h"
#include "client/transfer/delta/delta_answers.h"
#include "client/transfer/delta/delta_plan.h"
#include "client/transfer/delta/delta_scripts.h"
#include "client/transfer/delta/delta_transfer.h"
#include "client/transfer/delta/line_rate.h"
#include "client/transfer/delta/rolling_checksum.h"

namespace runel {
namespace {

using Matches = std::vector<BlockMatch>;
using Ranges = std::vector<FileRange>;

constexpr unsigned kSeed = 20;
constexpr std::size_t kFirstBlock = 524288;

std::string noise(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes;
  while (bytes.size() < size) {
    const std::uint_fast32_t word = random();
    for (unsigned shift = 0; shift < 32; shift += 8) {
      bytes += static_cast<char>((word >> shift) & 0xffU);
    }
  }
  bytes.resize(size);
  return bytes;
}

std::uint32_t cksum(std::string_view bytes) {
  return cksumOf(crcState(bytes), bytes.size());
}

BlockSearch::Read reader(const std::string& bytes) {
  return [&bytes](std::uint64_t offset, std::size_t count, std::string& part) {
    part = bytes.substr(static_cast<std::size_t>(offset), count);
    return part.size() == count
               ? std::nullopt
               : std::make_optional(Error(Kind::local, Cause::changed, "read behind the end"));
  };
}

Matches find(BlockTable table, const std::string& bytes, Ranges gaps) {
  table.prepare();
  BlockSearch search(std::move(table), reader(bytes), std::move(gaps));
  while (search.step()) {
  }
  EXPECT_FALSE(search.error());
  return search.matches();
}

// The table that a device's answers give.
BlockTable tableOf(const std::string& old, const BlockList& blocks) {
  BlockTable table(blocks.length);
  for (const FileRange& range : blocks.ranges) {
    for (std::uint64_t at = range.begin; at < range.end; at += blocks.length) {
      table.add(at,
                cksum(std::string_view(old).substr(static_cast<std::size_t>(at), blocks.length)));
    }
  }
  return table;
}

DeltaPlan planOf(const std::string& old, const std::string& fresh) {
  DeltaPlan plan(0, fresh.size());
  const std::size_t length = longBlock(old.size());
  BlockList blocks{length, {{0, old.size() / length * length}}};
  while (!blocks.ranges.empty()) {
    plan.add(find(tableOf(old, blocks), fresh, plan.gaps()));
    blocks = plan.refine(blocks.length, old.size());
  }
  return plan;
}

// What a device would assemble, and how much of it was sent.
std::string assembled(const DeltaPlan& plan, const std::string& old, const std::string& fresh,
                      std::uint64_t& sent) {
  std::string bytes;
  sent = 0;
  for (const DeltaSegment& segment : plan.segments()) {
    bytes.append(segment.kept ? old : fresh, static_cast<std::size_t>(segment.from),
                 static_cast<std::size_t>(segment.length));
    sent += segment.kept ? 0 : segment.length;
  }
  return bytes;
}

TEST(RollingChecksumTest, IsTheCrcOfCksum) {
  EXPECT_EQ(cksum(""), 4294967295U);
  EXPECT_EQ(cksum("123456789"), 930766865U);
  EXPECT_EQ(cksum(std::string(1000, 'x')), 3999126958U);
}

TEST(RollingChecksumTest, StateOfCksumUndoesTheLength) {
  for (const std::uint64_t length : {0ULL, 1ULL, 255ULL, 256ULL, 524288ULL, 1ULL << 40U}) {
    EXPECT_EQ(stateOfCksum(cksumOf(0x12345678, length), length), 0x12345678U) << length;
  }
}

TEST(RollingChecksumTest, RollingGivesTheStateOfEachWindow) {
  const std::string bytes = noise(3000, kSeed);
  for (const std::size_t length : {1U, 7U, 8U, 64U, 1000U}) {
    const RollingChecksum rolling(length);
    std::uint32_t state = crcState(std::string_view(bytes).substr(0, length));
    for (std::size_t at = 0; at + length < bytes.size(); ++at) {
      ASSERT_EQ(state, crcState(std::string_view(bytes).substr(at, length))) << length << " " << at;
      state = rolling.roll(state, bytes[at], bytes[at + length]);
    }
  }
}

TEST(BlockSearchTest, FindsBlocksAtAnyOffset) {
  const std::string old = noise(4 * kShortBlock, kSeed);
  const std::string fresh = "new" + old.substr(kShortBlock, 2 * kShortBlock) + "end";
  EXPECT_EQ(
      find(tableOf(old, {kShortBlock, {{0, old.size()}}}), fresh, {{0, fresh.size()}}),
      (Matches{{3, kShortBlock, kShortBlock}, {3 + kShortBlock, 2 * kShortBlock, kShortBlock}}));
}

TEST(BlockSearchTest, FindsABlockAtBothEndsOfAGap) {
  const std::string old = noise(2 * kShortBlock, kSeed);
  const std::string fresh = old.substr(kShortBlock) + "between" + old.substr(0, kShortBlock);
  EXPECT_EQ(find(tableOf(old, {kShortBlock, {{0, old.size()}}}), fresh, {{0, fresh.size()}}),
            (Matches{{0, kShortBlock, kShortBlock}, {kShortBlock + 7, 0, kShortBlock}}));
}

TEST(BlockSearchTest, SearchesGapsOnly) {
  const std::string old = noise(4 * kShortBlock, kSeed);
  const std::uint64_t end = old.size();
  EXPECT_EQ(find(tableOf(old, {kShortBlock, {{0, end}}}), old,
                 {{0, 100}, {1, 2 * kShortBlock}, {end - kShortBlock, end}}),
            (Matches{{kShortBlock, kShortBlock, kShortBlock},
                     {end - kShortBlock, end - kShortBlock, kShortBlock}}));
}

TEST(BlockSearchTest, OfEqualBlocksTakesTheNextOneOrTheOneAtTheSamePlace) {
  const std::string zeros(4 * kShortBlock, '\0');
  const BlockTable table = tableOf(zeros, {kShortBlock, {{0, zeros.size()}}});
  const Matches matches = find(table, zeros, {{0, zeros.size()}});
  ASSERT_EQ(matches.size(), 4U);
  for (const BlockMatch& match : matches) {
    EXPECT_EQ(match.at, match.from);
  }
}

TEST(BlockSearchTest, ReadsOnlyOneBlockAfterAMatch) {
  const std::string old = noise(4 * kShortBlock, kSeed);
  BlockTable table = tableOf(old, {kShortBlock, {{0, old.size()}}});
  table.prepare();
  std::vector<std::size_t> counts;
  const auto read = [&](std::uint64_t offset, std::size_t count, std::string& part) {
    counts.push_back(count);
    return reader(old)(offset, count, part);
  };
  BlockSearch search(std::move(table), read, {{0, old.size()}});
  while (search.step()) {
  }
  EXPECT_EQ(counts, (std::vector<std::size_t>{old.size(), kShortBlock, kShortBlock, kShortBlock}));
}

TEST(BlockSearchTest, ReportsAFileThatCannotBeRead) {
  const std::string old = noise(kShortBlock, kSeed);
  BlockTable table = tableOf(old, {kShortBlock, {{0, old.size()}}});
  table.prepare();
  BlockSearch search(std::move(table), reader(old), {{0, old.size() + 1}});
  EXPECT_FALSE(search.step());
  EXPECT_TRUE(search.error());
}

TEST(DeltaPlanTest, AnyTwoFilesAreReassembled) {
  std::mt19937 random(kSeed);
  const auto below = [&random](std::size_t limit) { return random() % limit; };
  for (unsigned round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    const std::string old = noise(below(3 * kFirstBlock), round);
    std::string fresh = old;
    for (std::size_t edits = below(6); edits != 0; --edits) {
      const std::size_t at = below(fresh.size() + 1);
      const std::size_t removed = below(100000);
      fresh.replace(at, removed, noise(below(100000), 100 + round));
    }
    std::uint64_t sent = 0;
    const DeltaPlan plan = planOf(old, fresh);
    EXPECT_EQ(assembled(plan, old, fresh, sent), fresh);
    EXPECT_EQ(sent + plan.kept(), fresh.size());
  }
}

TEST(DeltaPlanTest, AnInsertionAtTheFrontIsAllThatIsSent) {
  const std::string old = noise(4 * kFirstBlock, kSeed);
  const std::string fresh = noise(1000, 7) + old;
  std::uint64_t sent = 0;
  const DeltaPlan plan = planOf(old, fresh);
  EXPECT_EQ(assembled(plan, old, fresh, sent), fresh);
  EXPECT_EQ(sent, 1000U);
  EXPECT_TRUE(plan.doubtful().empty());
  EXPECT_TRUE(plan.refine(kFirstBlock, old.size()).ranges.empty()) << "no short block fits";
}

TEST(DeltaPlanTest, AScatteredChangeCostsAShortBlock) {
  const std::string old = noise(8 * kFirstBlock, kSeed);
  std::string fresh = old;
  for (std::size_t at = 5000; at < fresh.size(); at += kFirstBlock) {
    fresh[at] = static_cast<char>(fresh[at] + 1);
  }
  std::uint64_t sent = 0;
  EXPECT_EQ(assembled(planOf(old, fresh), old, fresh, sent), fresh);
  EXPECT_EQ(sent, 8 * kShortBlock);
}

TEST(DeltaPlanTest, TheDeviceReadsOnlyBlocksNearTheDifferences) {
  DeltaPlan plan(0, 100 * kFirstBlock);
  plan.add({{0, 0, 50 * kFirstBlock}, {51 * kFirstBlock, 51 * kFirstBlock, 49 * kFirstBlock}});
  const BlockList blocks = plan.refine(kFirstBlock, 100 * kFirstBlock);
  EXPECT_EQ(blocks.length, kShortBlock);
  EXPECT_EQ(blocks.ranges, (Ranges{{50 * kFirstBlock, 51 * kFirstBlock}}));
}

TEST(DeltaPlanTest, ManyDifferencesAreNarrowedInTwoSteps) {
  DeltaPlan plan(0, 100 * kFirstBlock);
  plan.add({{0, 0, kFirstBlock}});
  const BlockList blocks = plan.refine(kFirstBlock, 100 * kFirstBlock);
  EXPECT_EQ(blocks.length, kMiddleBlock);
  EXPECT_EQ(blocks.count(), 99U * 4);
  EXPECT_EQ(plan.refine(kMiddleBlock, 100 * kFirstBlock).count(), 99U * 32);
  EXPECT_TRUE(plan.refine(kShortBlock, 100 * kFirstBlock).ranges.empty());
}

TEST(DeltaPlanTest, WithoutAnyMatchTheShortBlocksAreNotRead) {
  const DeltaPlan plan(0, 100 * kFirstBlock);
  EXPECT_EQ(plan.refine(kFirstBlock, 100 * kFirstBlock).length, kMiddleBlock);
  EXPECT_TRUE(plan.refine(kMiddleBlock, 100 * kFirstBlock).ranges.empty());
}

TEST(DeltaPlanTest, TheDeviceReadsALimitedNumberOfBlocks) {
  DeltaPlan plan(0, 10000 * kFirstBlock);
  plan.add({{0, 0, kMiddleBlock}});
  EXPECT_EQ(plan.refine(kMiddleBlock, 10000 * kFirstBlock).count(), 4096U);
  plan.add({{5000 * kFirstBlock, 5000 * kFirstBlock, kMiddleBlock}});
  EXPECT_EQ(plan.refine(kMiddleBlock, 10000 * kFirstBlock).count(), 4096U) << "of all ranges";
}

TEST(DeltaPlanTest, ASingleDisplacedBlockIsDoubtful) {
  DeltaPlan plan(0, 10 * kShortBlock);
  const BlockMatch doubt{5, 9 * kShortBlock, kShortBlock};
  plan.add({doubt,
            {2 * kShortBlock, 2 * kShortBlock, kShortBlock},
            {4 * kShortBlock, kShortBlock, kShortBlock},
            {5 * kShortBlock, 2 * kShortBlock, kShortBlock}});
  EXPECT_EQ(plan.doubtful(), Matches{doubt});
  plan.remove(doubt);
  EXPECT_TRUE(plan.doubtful().empty());
  EXPECT_EQ(plan.gaps().front(), (FileRange{0, 2 * kShortBlock}));
}

TEST(DeltaPlanTest, BeginsBehindWhatThePartHas) {
  DeltaPlan plan(100, 300);
  plan.add({{150, 0, 50}});
  EXPECT_EQ(plan.gaps(), (Ranges{{100, 150}, {200, 300}}));
  EXPECT_EQ(plan.segments().size(), 3U);
  EXPECT_EQ(plan.segments().front().from, 100U);
}

TEST(DeltaPlanTest, ALargerFileHasLongerFirstBlocks) {
  EXPECT_EQ(longBlock(0), 524288U);
  EXPECT_EQ(longBlock(33ULL * 524288 - 1), 524288U);
  EXPECT_EQ(longBlock(33ULL * 524288), 1048576U);
  EXPECT_EQ(longBlock(1ULL << 40U), 2097152U);
}

TEST(DeltaScriptsTest, EachRequestForSumsIsShort) {
  const BlockList all{kFirstBlock, {{0, 10 * kFirstBlock}, {20 * kFirstBlock, 40 * kFirstBlock}}};
  std::uint64_t blocks = 0;
  for (const SumRequest& asked : askForSums("/f", all)) {
    EXPECT_LE(asked.blocks.count(), 32U);
    blocks += asked.blocks.count();
  }
  EXPECT_EQ(blocks, 30U);
  EXPECT_EQ(askForSums("/f", {kShortBlock, {{0, 65 * kShortBlock}}}).size(), 2U);
}

TEST(DeltaScriptsTest, CopiesWithTheLongestBlock) {
  const auto numbers = [](const FileRange& part) {
    const Request request = copyPart("/f", part, "/p");
    return std::vector<std::string>(request.words().end() - 3, request.words().end());
  };
  using Words = std::vector<std::string>;
  EXPECT_EQ(numbers({kFirstBlock, 3 * kFirstBlock}), (Words{"65536", "8", "16"}));
  EXPECT_EQ(numbers({kFirstBlock, kFirstBlock + kShortBlock}), (Words{"16384", "32", "1"}));
  EXPECT_EQ(numbers({2 * kShortBlock, 4 * kShortBlock}), (Words{"32768", "1", "1"}));
}

TEST(DeltaScriptsTest, DigestsAreThoseOfExactlyTheParts) {
  const auto numbers = [](const std::vector<FileRange>& parts) {
    const Request request = askForDigests("/f", parts);
    const auto size = static_cast<std::ptrdiff_t>(1 + 2 * parts.size());
    return std::vector<std::string>(request.words().end() - size, request.words().end());
  };
  using Words = std::vector<std::string>;
  EXPECT_EQ(numbers({{0, kFirstBlock}, {kFirstBlock, kFirstBlock + 5}}),
            (Words{"65536", "0", "8", "8", "1"}));
  EXPECT_EQ(numbers({{0, kFirstBlock}, {kFirstBlock, kFirstBlock + kShortBlock}}),
            (Words{"16384", "0", "32", "32", "1"}));
}

TEST(DeltaAnswersTest, ReadsTheToolsAndTheFreeSpace) {
  EXPECT_EQ(parseTools("missing cksum\n")->missing, "cksum");
  const char* const heading =
      "complete\nFilesystem 1024-blocks Used Available Capacity Mounted on\n";
  const auto tools = parseTools(std::string(heading) + "tmpfs 1000 400 600 40% /run\n");
  EXPECT_EQ(tools->missing, "");
  EXPECT_EQ(tools->freeBytes, 600U * 1024);
  EXPECT_EQ(parseTools(std::string(heading) + "a b 1000 400 600 40% /a 5% b\n")->freeBytes,
            600U * 1024);
}

TEST(DeltaAnswersTest, WithoutDfTheFreeSpaceIsUnknown) {
  for (const char* text :
       {"complete\n", "complete", "complete\nheading\n", "complete\nh\na b c x 4%\n",
        "complete\nh\n1 2 3 99999999999999999999 4% /\n", "complete\nh\n1 2 3 -1 4% /\n",
        "complete\nh\n1 2 3 18446744073709551615 4% /\n"}) {
    const auto tools = parseTools(text);
    ASSERT_TRUE(tools) << text;
    EXPECT_FALSE(tools->freeBytes) << text;
  }
}

TEST(DeltaAnswersTest, RefusesOtherTexts) {
  for (const char* text : {"", "\n", "missing\n", "missing a b\n", "sh: not found\n"}) {
    EXPECT_FALSE(parseTools(text)) << text;
  }
}

TEST(DeltaAnswersTest, ReadsSums) {
  EXPECT_EQ(parseSums("1 16\n4294967295 16\n", 2, 16),
            (std::vector<std::uint32_t>{1, 4294967295U}));
}

TEST(DeltaAnswersTest, RefusesOtherSums) {
  for (const char* text : {"", "1 16\n", "1 16\n2 16\n3 16\n", "1 16\n2 15\n",
                           "1 16\n4294967296 16\n", "1 16\n-2 16\n", "1 16\nx 16\n",
                           "1 16\n2 16 name\n", "1 16\n2\n", "1 16\n\n2 16\n", "1 16\n2 0x10\n"}) {
    EXPECT_FALSE(parseSums(text, 2, 16)) << text;
  }
}

TEST(DeltaChoiceTest, NeedsTwoLargeFiles) {
  Stat there;
  there.mode = 0100644;
  there.size = 4194305;
  EXPECT_TRUE(mayUseDelta(Delta::automatic, there, 4194305));
  EXPECT_FALSE(mayUseDelta(Delta::automatic, there, 4194304));
  EXPECT_FALSE(mayUseDelta(Delta::never, there, 4194305));
  EXPECT_FALSE(mayUseDelta(Delta::always, std::nullopt, 4194305));
  there.size = 524289;
  EXPECT_FALSE(mayUseDelta(Delta::automatic, there, 4194305));
  EXPECT_TRUE(mayUseDelta(Delta::always, there, 524289));
  EXPECT_FALSE(mayUseDelta(Delta::always, there, 524288));
  there.mode = 0040755;
  EXPECT_FALSE(mayUseDelta(Delta::always, there, 4194305));
  there.mode = 0100644;
  there.size = UINT64_MAX;
  EXPECT_FALSE(mayUseDelta(Delta::always, there, 4194305));
}

TEST(DeltaChoiceTest, ALineIsSlowBelowFiveMegabytesInASecond) {
  using std::chrono::milliseconds;
  EXPECT_TRUE(isSlowLine(262144, milliseconds(60)));
  EXPECT_FALSE(isSlowLine(262144, milliseconds(50)));
  EXPECT_FALSE(isSlowLine(262144, milliseconds(-1)));
}

}  // namespace
}  // namespace runel
