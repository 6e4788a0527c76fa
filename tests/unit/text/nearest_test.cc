// SPDX-License-Identifier: Apache-2.0
// Suggestions for misspelled words.
#include "text/nearest.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace zell {
namespace {

const std::vector<std::string> kWords{"exec", "cat", "ls", "hostid", "walktree"};

TEST(EditDistanceTest, CountsInsertedRemovedReplacedAndExchangedBytes) {
  EXPECT_EQ(editDistance("exec", "exec"), 0U);
  EXPECT_EQ(editDistance("exec", "exce"), 1U);
  EXPECT_EQ(editDistance("exec", "execc"), 1U);
  EXPECT_EQ(editDistance("exec", "xec"), 1U);
  EXPECT_EQ(editDistance("exec", "exek"), 1U);
  EXPECT_EQ(editDistance("exec", "cat"), 4U);
  EXPECT_EQ(editDistance("", "cat"), 3U);
  EXPECT_EQ(editDistance("cat", ""), 3U);
}

TEST(EditDistanceTest, IgnoresTheBytesAroundTheWords) {
  const std::string_view inside = std::string_view("cabc").substr(1, 2);
  EXPECT_EQ(editDistance(inside, "ac"), 1U);
  EXPECT_EQ(editDistance("ac", inside), 1U);
}

TEST(NearestWordTest, IsTheMostSimilarWord) {
  EXPECT_EQ(nearestWord("exce", kWords), "exec");
  EXPECT_EQ(nearestWord("wlaktre", kWords), "walktree");
  EXPECT_EQ(nearestWord("cst", {"cut", "cat", "cot"}), "cut") << "the first of several";
}

TEST(NearestWordTest, IsEmptyWithoutASimilarWord) {
  EXPECT_EQ(nearestWord("reboot", kWords), "");
  EXPECT_EQ(nearestWord("l", kWords), "");
  EXPECT_EQ(nearestWord("dog", kWords), "");
  EXPECT_EQ(nearestWord("", kWords), "");
  EXPECT_EQ(nearestWord(std::string(100, 'x'), {std::string(100, 'x')}), "") << "too long";
}

TEST(SuggestionTest, IsAQuestionOrEmpty) {
  EXPECT_EQ(suggestion("exce", kWords), " (did you mean 'exec'?)");
  EXPECT_EQ(suggestion("reboot", kWords), "");
}

}  // namespace
}  // namespace zell
