// SPDX-License-Identifier: Apache-2.0
// Names that are folded into ranges.
#include "output/name_ranges.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

using Names = std::vector<std::string>;

Names numbered(const std::string& prefix, int first, int last, int width = 0,
               const std::string& suffix = "") {
  Names names;
  for (int number = first; number <= last; ++number) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%0*d", width, number);
    names.push_back(prefix + digits + suffix);
  }
  return names;
}

TEST(FoldNamesTest, ConsecutiveNumbersBecomeARange) {
  Names names = numbered("gw-", 3, 9, 2);
  names.emplace_back("gw-12");
  EXPECT_EQ(foldNames(names), "gw-[03-09],gw-12");
}

TEST(FoldNamesTest, ARangeHasAtLeastThreeNames) {
  EXPECT_EQ(foldNames({}), "");
  EXPECT_EQ(foldNames({"gw-1"}), "gw-1");
  EXPECT_EQ(foldNames({"gw-1", "gw-2"}), "gw-1,gw-2");
  EXPECT_EQ(foldNames({"gw-1", "gw-2", "gw-3"}), "gw-[1-3]");
}

TEST(FoldNamesTest, TheWidthOfTheNumbersIsPreserved) {
  EXPECT_EQ(foldNames(numbered("a", 8, 12)), "a[8-12]");
  EXPECT_EQ(foldNames(numbered("a", 98, 102, 3)), "a[098-102]");
  EXPECT_EQ(foldNames(numbered("a", 0, 10)), "a[0-10]");
  EXPECT_EQ(foldNames({"a1", "a2", "a03", "a04"}), "a1,a2,a03,a04");
  EXPECT_EQ(foldNames({"a8", "a9", "a010", "a011"}), "a8,a9,a010,a011");
  EXPECT_EQ(foldNames({"a07", "a08", "a09", "a10", "a11"}), "a[07-11]");
}

TEST(FoldNamesTest, FoldsTheNumberInWhichTheNamesDiffer) {
  EXPECT_EQ(foldNames(numbered("rack2-gw", 1, 5, 0, ".site7")), "rack2-gw[1-5].site7");
  EXPECT_EQ(foldNames(numbered("192.0.2.", 11, 13)), "192.0.2.[11-13]");
  EXPECT_EQ(foldNames(numbered("127.0.0.", 1, 9, 0, ":7000")), "127.0.0.[1-9]:7000");
  EXPECT_EQ(foldNames(numbered("127.0.0.1:", 7000, 7002)), "127.0.0.1:[7000-7002]");
  EXPECT_EQ(foldNames(numbered("@unit-", 1, 3, 4)), "@unit-[0001-0003]");
}

TEST(FoldNamesTest, KeepsTheOrderOfTheFirstNames) {
  EXPECT_EQ(foldNames({"z", "b-2", "a", "b-3", "b-1"}), "z,b-[1-3],a");
}

TEST(FoldNamesTest, ANameOccursOnce) {
  EXPECT_EQ(foldNames({"a", "b1", "b2", "a", "b3", "b2"}), "a,b[1-3]");
}

TEST(FoldNamesTest, NamesThatWouldBeAmbiguousStayAsTheyAre) {
  EXPECT_EQ(foldNames({"a[1", "a[2", "a[3"}), "a[1,a[2,a[3");
  EXPECT_EQ(foldNames({"n1234567891", "n1234567892", "n1234567893"}),
            "n1234567891,n1234567892,n1234567893");
}

TEST(FoldNamesTest, TheTimeIsLinearInTheNumberOfNames) {
  const auto timeFor = [](int count) {
    const Names names = numbered("127.0.0.", 1, count, 0, ":7000");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_NE(foldNames(names), "");
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  };
  (void)timeFor(100);
  EXPECT_LT(timeFor(50000), 50 * 30 * (timeFor(1000) + 0.0005));
}

TEST(HeadingNamesTest, SpellsOutAFewNames) {
  EXPECT_EQ(headingNames({"gw-1"}), "gw-1");
  EXPECT_EQ(headingNames(numbered("gw-", 1, 4)), "gw-1, gw-2, gw-3, gw-4");
  EXPECT_EQ(headingNames(numbered("gw-", 1, 5)), "gw-[1-5]");
}

}  // namespace
}  // namespace runelctl
