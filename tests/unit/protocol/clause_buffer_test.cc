// SPDX-License-Identifier: Apache-2.0
// Where clauses end, and the cost of the search.
#include "protocol/clause_buffer.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/slow_relay.h"

namespace zell::test {
namespace {

using Next = ClauseBuffer::Next;

constexpr std::size_t kMiB = 1048576;

std::string contentsOf(const ClauseBuffer& buffer) {
  return buffer.first(buffer.size());
}

// All clauses of @p bytes, in order, and the rest.
std::pair<std::vector<std::string>, std::string> cutAll(const std::string& bytes) {
  ClauseBuffer buffer;
  buffer.append(bytes);
  std::vector<std::string> clauses;
  std::string clause;
  while (buffer.next(clause) == Next::cut) {
    clauses.push_back(clause);
  }
  return {clauses, contentsOf(buffer)};
}

Next outcomeOf(const std::string& bytes) {
  ClauseBuffer buffer;
  buffer.append(bytes);
  std::string clause;
  return buffer.next(clause);
}

using Cuts = std::pair<std::vector<std::string>, std::string>;

TEST(ClauseBufferTest, CutsASelfClosingTag) {
  EXPECT_EQ(cutAll("<a/>"), Cuts({"<a/>"}, ""));
}

TEST(ClauseBufferTest, CutsAnElementAtItsClosingTag) {
  EXPECT_EQ(cutAll("<a>x</a>"), Cuts({"<a>x</a>"}, ""));
}

TEST(ClauseBufferTest, CutsClausesInTheirOrder) {
  EXPECT_EQ(cutAll("<a/><b>y</b>\r\n<c/>"), Cuts({"<a/>", "<b>y</b>", "<c/>"}, ""));
}

TEST(ClauseBufferTest, KeepsTheBlanksBeforeASelfClosingTag) {
  ClauseBuffer buffer;
  buffer.append("  <a/>");
  std::string clause;
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(contentsOf(buffer), "  ");
}

TEST(ClauseBufferTest, RemovesTheBlanksBeforeAnElement) {
  ClauseBuffer buffer;
  buffer.append("  <b></b>");
  std::string clause;
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(clause, "<b></b>");
  EXPECT_TRUE(buffer.empty());
}

TEST(ClauseBufferTest, KeepsTheBlanksOfManyTagsBeforeTheRest) {
  ClauseBuffer buffer;
  buffer.append(" <a/>\t<b/>\r\nx");
  std::string clause;
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(buffer.next(clause), Next::notOpening);
  EXPECT_EQ(contentsOf(buffer), " \t\r\nx");
  EXPECT_EQ(buffer.position(), 4U);
}

TEST(ClauseBufferTest, AnElementRemovesTheBlanksOfEarlierTags) {
  EXPECT_EQ(cutAll(" <a/> <b></b>x"), Cuts({"<a/>", "<b></b>"}, "x"));
}

TEST(ClauseBufferTest, FourBytesAreBlank) {
  EXPECT_EQ(outcomeOf(" \t\r\n"), Next::empty);
  EXPECT_EQ(outcomeOf("\v<a/>"), Next::notOpening);
  EXPECT_EQ(outcomeOf("\f<a/>"), Next::notOpening);
  EXPECT_EQ(outcomeOf(std::string("\0<a/>", 5)), Next::notOpening);
}

TEST(ClauseBufferTest, DropsABufferOfBlanks) {
  EXPECT_EQ(cutAll(" \r\n\t "), Cuts({}, ""));
}

TEST(ClauseBufferTest, ASentinelAnywhereBlocksEarlierClauses) {
  EXPECT_EQ(cutAll("<a/>\x01"), Cuts({}, "<a/>\x01"));
  EXPECT_EQ(cutAll("<a/><b>\x02</b>"), Cuts({}, "<a/><b>\x02</b>"));
  EXPECT_EQ(outcomeOf("\x02 junk"), Next::sentinel);
  EXPECT_EQ(outcomeOf("junk\x01"), Next::sentinel);
}

TEST(ClauseBufferTest, ASentinelStaysFoundForAnyLaterInput) {
  ClauseBuffer buffer;
  std::string clause;
  buffer.append("<a/>\x02");
  EXPECT_EQ(buffer.next(clause), Next::sentinel);
  EXPECT_EQ(buffer.next(clause), Next::sentinel);
  buffer.append("<b/>");
  EXPECT_EQ(buffer.next(clause), Next::sentinel);
  EXPECT_EQ(contentsOf(buffer), "<a/>\x02<b/>");
}

TEST(ClauseBufferTest, ASentinelCountsOnlyOnceItHasArrived) {
  ClauseBuffer buffer;
  std::string clause;
  buffer.append("<a>");
  EXPECT_EQ(buffer.next(clause), Next::noClosing);
  buffer.append("\x01</a>");
  EXPECT_EQ(buffer.next(clause), Next::sentinel);
}

TEST(ClauseBufferTest, WaitsForTheEndOfATag) {
  ClauseBuffer buffer;
  std::string clause = "before";
  buffer.append(" <a b");
  EXPECT_EQ(buffer.next(clause), Next::noGt);
  EXPECT_EQ(buffer.position(), 1U);
  EXPECT_EQ(clause, "before");
  buffer.append("/>");
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(clause, "<a b/>");
}

TEST(ClauseBufferTest, AClauseEndsAtTheFirstClosingTagOfItsName) {
  EXPECT_EQ(cutAll("<a><a>x</a></a>"), Cuts({"<a><a>x</a>"}, "</a>"));
}

TEST(ClauseBufferTest, ATagWithAttributesNeverCompletes) {
  EXPECT_EQ(outcomeOf("<a id=\"1\">v</a>"), Next::noClosing);
}

TEST(ClauseBufferTest, ATagWithAttributesEndsWhereTheyAreRepeated) {
  EXPECT_EQ(cutAll("<a b>v</a></a b>"), Cuts({"<a b>v</a></a b>"}, ""));
}

TEST(ClauseBufferTest, AStrayClosingTagBlocks) {
  EXPECT_EQ(outcomeOf("</a>"), Next::noClosing);
  EXPECT_EQ(cutAll("</a><b/>"), Cuts({}, "</a><b/>"));
}

TEST(ClauseBufferTest, ANameMayBeginWithASlash) {
  EXPECT_EQ(cutAll("</a>x<//a>"), Cuts({"</a>x<//a>"}, ""));
  EXPECT_EQ(outcomeOf("<//a>"), Next::noClosing);
}

TEST(ClauseBufferTest, ATagMayHaveNoName) {
  EXPECT_EQ(cutAll("<>x</>"), Cuts({"<>x</>"}, ""));
  EXPECT_EQ(cutAll("</>"), Cuts({"</>"}, ""));
  EXPECT_EQ(outcomeOf("<>"), Next::noClosing);
  EXPECT_EQ(outcomeOf("<>/>"), Next::noClosing);
}

TEST(ClauseBufferTest, ALongerNameDoesNotMatch) {
  EXPECT_EQ(cutAll("<a></ab></a>"), Cuts({"<a></ab></a>"}, ""));
  EXPECT_EQ(cutAll("<ab></a></b></ab>"), Cuts({"<ab></a></b></ab>"}, ""));
}

TEST(ClauseBufferTest, AnAlmostClosingTagDoesNotHideTheRealOne) {
  EXPECT_EQ(cutAll("<a><</a>"), Cuts({"<a><</a>"}, ""));
  EXPECT_EQ(cutAll("<a></</a>"), Cuts({"<a></</a>"}, ""));
  EXPECT_EQ(cutAll("<a>></a>"), Cuts({"<a>></a>"}, ""));
  EXPECT_EQ(cutAll("<a>/a></a>"), Cuts({"<a>/a></a>"}, ""));
}

TEST(ClauseBufferTest, TheClosingTagMayComeByteByByte) {
  ClauseBuffer buffer;
  std::string clause;
  const std::string bytes = " <ab>x>y</a></ab>";
  for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
    buffer.append(bytes.substr(i, 1));
    EXPECT_NE(buffer.next(clause), Next::cut) << "after byte " << i;
  }
  buffer.append(">");
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(clause, "<ab>x>y</a></ab>");
}

TEST(ClauseBufferTest, FirstAndLastCountTheBlanksOfEarlierTags) {
  ClauseBuffer buffer;
  buffer.append(" <a/>\t<b/>\nxyz");
  std::string clause;
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(buffer.size(), 6U);
  EXPECT_EQ(buffer.first(2), " \t");
  EXPECT_EQ(buffer.first(4), " \t\nx");
  EXPECT_EQ(buffer.first(99), " \t\nxyz");
  EXPECT_EQ(buffer.last(2), "yz");
  EXPECT_EQ(buffer.last(5), "\t\nxyz");
  EXPECT_EQ(buffer.last(99), " \t\nxyz");
}

TEST(ClauseBufferTest, EndsWithComparesTheEnd) {
  ClauseBuffer buffer;
  EXPECT_FALSE(buffer.endsWith("yz"));
  buffer.append("xyz");
  EXPECT_TRUE(buffer.endsWith("yz"));
  EXPECT_TRUE(buffer.endsWith("xyz"));
  EXPECT_FALSE(buffer.endsWith("wxyz"));
  EXPECT_FALSE(buffer.endsWith("xy"));
}

TEST(ClauseBufferTest, ALargeClauseAndTheNextOneAreWhole) {
  const std::string large = "<a>" + std::string(kMiB, 'x') + "</a>";
  EXPECT_EQ(cutAll(" <b/> " + large + "\r\n<c"), Cuts({"<b/>", large}, "\r\n<c"));
  EXPECT_EQ(cutAll(large + large + "<d/>"), Cuts({large, large, "<d/>"}, ""));
}

// Every buffer of up to seven of these bytes, in one packet and byte by byte.
class EveryShortBuffer : public testing::TestWithParam<bool> {
 protected:
  void compare(const std::string& bytes) {
    ClauseBuffer buffer;
    SlowRelay rules;
    std::string clause;
    const std::size_t step = GetParam() ? 1 : bytes.size();
    for (std::size_t at = 0; at < bytes.size(); at += step) {
      buffer.append(bytes.substr(at, step));
      rules.buffer += bytes.substr(at, step);
      bool more = true;
      while (more) {
        more = rules.nextXmlClause();
        ASSERT_EQ(buffer.next(clause) == Next::cut, more) << bytes;
        ASSERT_EQ(clause, rules.clause) << bytes;
        ASSERT_EQ(contentsOf(buffer), rules.buffer) << bytes;
      }
    }
  }
};

TEST_P(EveryShortBuffer, IsCutByTheRules) {
  const std::string alphabet = "<>/a ";
  constexpr std::size_t kLongest = 7;
  std::vector<std::string> all = {""};
  for (std::size_t i = 0; i < all.size() && all[i].size() < kLongest; ++i) {
    for (const char byte : alphabet) {
      all.push_back(all[i] + byte);
      compare(all.back());
      ASSERT_FALSE(HasFatalFailure());
    }
  }
  EXPECT_EQ(all.size(), 97656U);
}

INSTANTIATE_TEST_SUITE_P(InOnePacket, EveryShortBuffer, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(ByteByByte, EveryShortBuffer, testing::Values(true));

// The work for @p stream in packets of 4096 bytes, with a search for clauses after each.
std::uint64_t workFor(const std::string& stream) {
  ClauseBuffer buffer;
  std::string clause;
  for (std::size_t at = 0; at < stream.size(); at += 4096) {
    buffer.append(stream.substr(at, 4096));
    while (buffer.next(clause) == Next::cut) {
    }
  }
  return buffer.work();
}

std::string repeated(const std::string& piece, std::size_t size) {
  std::string text;
  text.reserve(size + piece.size());
  while (text.size() < size) {
    text += piece;
  }
  return text;
}

struct Stream {
  const char* name;
  std::string bytes;
};

class ClauseBufferWork : public testing::TestWithParam<std::size_t> {
 protected:
  // Streams of about the parameter's size that would be expensive with a search from the start or a
  // comparison at each '>'.
  static std::vector<Stream> streams() {
    const std::size_t size = GetParam();
    const std::string longName(size / 4, 'n');
    return {
        {"one clause", "<a>" + std::string(size, 'x') + "</a>\r\n"},
        {"an open clause", "<a>" + std::string(size, 'x')},
        {"an open tag", "<" + std::string(size, 'x')},
        {"many ends of tags", "<a>" + std::string(size, '>') + "</a>"},
        {"many inner tags", "<a>" + repeated("<b>c</b>", size) + "</a>"},
        {"many almost closing tags", "<a>" + repeated("</b>", size) + "</a>"},
        {"a long name",
         "<" + longName + ">" + repeated(longName + ">", size) + "</" + longName + ">"},
        {"a long name, many ends", "<" + longName + ">" + std::string(size, '>')},
        {"a blocked buffer", "x" + repeated("<a/>", size)},
        {"blanks", std::string(size, ' ')},
        {"a sentinel first", "\x02" + std::string(size, 'x')},
        {"small clauses", repeated("<a/>", size)},
        {"large clauses",
         repeated("<a>" + std::string(ClauseBuffer::kKeptCapacity, 'x') + "</a>", size)},
        {"small clauses, blanks between", repeated(" <a/>\r\n", size)},
        {"small elements, blanks between", repeated(" <a>x</a>\r\n", size)},
    };
  }
};

TEST_P(ClauseBufferWork, GrowsWithTheBytesAndNotWithThePackets) {
  for (const Stream& stream : streams()) {
    EXPECT_LE(workFor(stream.bytes), 8 * stream.bytes.size() + 65536) << stream.name;
  }
}

TEST_P(ClauseBufferWork, OfABacklogGrowsWithItsBytes) {
  for (const Stream& stream : streams()) {
    ClauseBuffer buffer;
    buffer.append(stream.bytes);
    std::string clause;
    while (buffer.next(clause) == Next::cut) {
    }
    EXPECT_LE(buffer.work(), 8 * stream.bytes.size() + 65536) << stream.name;
  }
}

TEST_P(ClauseBufferWork, DoesNotGrowForABlockedBuffer) {
  for (const Stream& stream : streams()) {
    ClauseBuffer buffer;
    buffer.append(stream.bytes);
    std::string clause;
    while (buffer.next(clause) == Next::cut) {
    }
    const std::uint64_t before = buffer.work();
    for (int pass = 0; pass < 1000; ++pass) {
      EXPECT_NE(buffer.next(clause), Next::cut);
    }
    EXPECT_EQ(buffer.work(), before) << stream.name;
  }
}

TEST_P(ClauseBufferWork, MemoryIsReusedWhileTheBufferIsNeverEmpty) {
  ClauseBuffer buffer;
  std::string clause;
  buffer.append("<a>");
  for (std::size_t size = 0; size < GetParam(); size += 8) {
    buffer.append("x</a><a>");
    ASSERT_EQ(buffer.next(clause), Next::cut);
    ASSERT_EQ(contentsOf(buffer), "<a>");
  }
  EXPECT_LE(buffer.capacity(), 1024U);
}

TEST_P(ClauseBufferWork, MemoryIsFreedAfterABacklog) {
  ClauseBuffer buffer;
  std::string clause;
  buffer.append(repeated("<a>x</a>", GetParam()) + "<a");
  EXPECT_GE(buffer.capacity(), GetParam());
  while (buffer.next(clause) == Next::cut) {
  }
  EXPECT_LE(buffer.capacity(), 2 * ClauseBuffer::kKeptCapacity);
  EXPECT_EQ(contentsOf(buffer), "<a");
}

TEST_P(ClauseBufferWork, MemoryIsFreedAfterManyBlanks) {
  ClauseBuffer buffer;
  std::string clause;
  buffer.append(std::string(GetParam(), ' ') + "<a/>");
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(buffer.size(), GetParam());
  EXPECT_EQ(buffer.next(clause), Next::empty);
  EXPECT_LE(buffer.capacity(), 2 * ClauseBuffer::kKeptCapacity);
}

TEST(ClauseBufferTest, MemoryIsFreedWhenLittleOfItIsInUse) {
  const std::string clause = "<a>" + std::string(ClauseBuffer::kKeptCapacity - 7, 'x') + "</a>";
  const std::string bytes = clause + clause + "<a";
  ClauseBuffer buffer;
  for (const char byte : bytes) {
    buffer.append({&byte, 1});
  }
  ASSERT_GT(buffer.capacity(), 2 * ClauseBuffer::kKeptCapacity);
  std::string cut;
  ASSERT_EQ(buffer.next(cut), Next::cut);
  ASSERT_EQ(buffer.next(cut), Next::cut);
  EXPECT_LE(buffer.capacity(), ClauseBuffer::kKeptCapacity);
  EXPECT_EQ(contentsOf(buffer), "<a");
}

// An element of @p size bytes.
std::string elementOf(std::size_t size) {
  return "<a>" + std::string(size - 7, 'x') + "</a>";
}

// Cuts two elements of 105,000 bytes in total, each too short to take over the storage, from a
// buffer in which @p left bytes follow. Returns the size of its storage afterwards.
std::size_t storageWithRest(std::size_t left) {
  ClauseBuffer buffer;
  buffer.append(elementOf(55000) + elementOf(50000) + "<b>" + std::string(left - 3, 'x'));
  std::string clause;
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(buffer.next(clause), Next::cut);
  EXPECT_EQ(buffer.size(), left);
  return buffer.capacity();
}

TEST(ClauseBufferTest, StorageIsKeptWhileAQuarterOfItIsInUse) {
  EXPECT_GE(storageWithRest(35000), 140000U);
}

TEST(ClauseBufferTest, StorageIsFreedWhenLessThanAQuarterOfItIsInUse) {
  EXPECT_LE(storageWithRest(34000), ClauseBuffer::kKeptCapacity);
}

// ClauseBufferWork relies on this: the work is the number of bytes searched, compared, copied and
// moved.
TEST(ClauseBufferTest, CountsEveryByteThatItTouches) {
  const auto workOf = [](const std::string& bytes) {
    ClauseBuffer buffer;
    buffer.append(bytes);
    std::string clause;
    while (buffer.next(clause) == Next::cut) {
    }
    return buffer.work();
  };
  // Blanks, sentinels, end of the tag, end of the closing tag, its bytes, the copy, the moved rest.
  EXPECT_EQ(workOf("   "), 3U);
  EXPECT_EQ(workOf("x<a/>"), 5U);
  EXPECT_EQ(workOf("<a>x</a>"), 8U + 3 + 5 + 4 + 8);
  EXPECT_EQ(workOf("  <a/><b"), 2U + 8 + 6 + 4 + 2 + 2);
  constexpr std::size_t kKept = ClauseBuffer::kKeptCapacity;
  // Both are copied. Freeing the storage at the end moves the rest once more.
  EXPECT_EQ(workOf(elementOf(kKept) + elementOf(kKept) + "<a"),
            2 * kKept + 2 + 2 * (3 + (kKept - 3) + 4 + kKept) + 2 + 2 + 2);
  // The rest is as long as the first element: the element is copied, and the rest is moved.
  EXPECT_EQ(workOf(elementOf(2 * kKept) + elementOf(2 * kKept)),
            4 * kKept + 2 * (3 + (2 * kKept - 3) + 4) + 2 * kKept + 2 * kKept);
  // This element takes over the storage: the rest is copied, and the blank before it is removed.
  EXPECT_EQ(workOf(" " + elementOf(2 * kKept) + "tail"),
            1 + (2 * kKept + 5) + 4 + (2 * kKept - 3) + 4 + 4 + 2 * kKept);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ClauseBufferWork, testing::Values(kMiB / 4, 4 * kMiB));

}  // namespace
}  // namespace zell::test
