// SPDX-License-Identifier: Apache-2.0
// Number ranges in names, and lists of names.
#include "inventory/name_pattern.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "output/name_ranges.h"

namespace runelctl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Names = std::vector<std::string>;

Names expanded(const std::string& list) {
  const auto names = expandList(list);
  EXPECT_TRUE(names.ok()) << list << ": " << names.error().text();
  return names ? *names : Names();
}

std::string errorOf(const std::string& list) {
  const auto names = expandList(list);
  EXPECT_FALSE(names.ok()) << list;
  return names ? "" : names.error().text();
}

TEST(NamePatternTest, ANameWithoutBracketsIsItself) {
  EXPECT_THAT(expanded("gw-1.example:7000"), ElementsAre("gw-1.example:7000"));
}

TEST(NamePatternTest, ARangeHasAllNumbersBetweenItsEnds) {
  EXPECT_THAT(expanded("gw-[8-11]"), ElementsAre("gw-8", "gw-9", "gw-10", "gw-11"));
  EXPECT_THAT(expanded("[3]"), ElementsAre("3"));
}

TEST(NamePatternTest, ALeadingZeroGivesAllNumbersItsWidth) {
  EXPECT_THAT(expanded("gw-[09-11]"), ElementsAre("gw-09", "gw-10", "gw-11"));
  EXPECT_THAT(expanded("a[007]"), ElementsAre("a007"));
  EXPECT_THAT(expanded("a[09-010]"), ElementsAre("a09", "a10"));
  EXPECT_THAT(expanded("a[0-1]"), ElementsAre("a0", "a1"));
}

TEST(NamePatternTest, BracketsHaveAListOfRanges) {
  EXPECT_THAT(expanded("gw-[01-03,60]"), ElementsAre("gw-01", "gw-02", "gw-03", "gw-60"));
  EXPECT_THAT(expanded("a[ 1 , 3 ]"), ElementsAre("a1", "a3"));
}

TEST(NamePatternTest, ANameMayHaveSeveralRangesAndATextBehindThem) {
  EXPECT_THAT(
      expanded("r[1-2]-gw[1-2].lan:5112"),
      ElementsAre("r1-gw1.lan:5112", "r1-gw2.lan:5112", "r2-gw1.lan:5112", "r2-gw2.lan:5112"));
}

TEST(NamePatternTest, RejectsMalformedRanges) {
  for (const char* text : {"a[]", "a[", "a]", "a[1", "a1]", "a[1-]", "a[-1]", "a[x]", "a[1-2-3]",
                           "a[[1]]", "a[1,]", "a[1;2]", "a[1234567890]", "a[+1]"}) {
    EXPECT_NE(errorOf(text), "") << text;
  }
  EXPECT_THAT(errorOf("a[5-1]"), HasSubstr("descending"));
  EXPECT_THAT(errorOf("a[001-10]"), HasSubstr("fewer digits"));
}

TEST(NamePatternTest, LimitsTheNumberOfNames) {
  EXPECT_EQ(expanded("a[1-100000]").size(), kMostNames);
  for (const char* list : {"a[0-100000]", "a[1-100000],b", "a[1-1000][1-101]",
                           "a[0-999999999][0-999999999][0-999999999]"}) {
    EXPECT_THAT(errorOf(list), HasSubstr("more than 100000 names")) << list;
  }
  EXPECT_NE(errorOf("[1][1][1][1][1][1][1][1][1]"), "");
  EXPECT_NE(errorOf(std::string(kLongestPattern + 1, 'a')), "");
}

TEST(NameListTest, CommasInBracketsDoNotSeparateNames) {
  EXPECT_THAT(expanded("gw-[03-04],gw-12"), ElementsAre("gw-03", "gw-04", "gw-12"));
  EXPECT_THAT(splitList("a[1,2],b"), ElementsAre("a[1,2]", "b"));
}

TEST(NameListTest, BlanksAndEmptyElementsAreOmitted) {
  EXPECT_THAT(expanded(" a ,, b\r"), ElementsAre("a", "b"));
  EXPECT_EQ(errorOf(" , "), "empty device list");
  EXPECT_EQ(errorOf(""), "empty device list");
}

TEST(NameListTest, ADuplicateStays) {
  EXPECT_THAT(expanded("a,a[1-1],a"), ElementsAre("a", "a1", "a"));
}

TEST(NameListTest, FoldedNamesAreTheSameList) {
  std::mt19937 random(20260301);
  for (int round = 0; round < 2000; ++round) {
    Names names;
    for (auto count = random() % 12 + 1; count > 0; --count) {
      const std::string digits = std::to_string(random() % 14);
      names.push_back("r" + std::to_string(random() % 3) + "-" + std::string(random() % 2, '0') +
                      digits);
    }
    Names same = expanded(foldNames(names));
    std::sort(same.begin(), same.end());
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    ASSERT_EQ(same, names) << foldNames(names);
  }
}

}  // namespace
}  // namespace runelctl
