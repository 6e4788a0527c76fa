// SPDX-License-Identifier: Apache-2.0
// Parsing of files of devices and of raw bytes.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <runel/address.h>

#include "cli/targets.h"
#include "commands/raw_text.h"

namespace runelctl {
namespace {

TEST(TargetFileTest, HasNamesAndComments) {
  std::istringstream lines("# all\n one 10.0.0.1 # first\n\n10.0.0.2:99\r\n");
  std::vector<runel::Address> targets;
  std::string why;
  ASSERT_TRUE(readTargets(lines, targets, why)) << why;
  ASSERT_EQ(targets.size(), 2U);
  EXPECT_EQ(targets[0].name(), "one");
  EXPECT_EQ(targets[1].name(), "10.0.0.2:99");
}

TEST(TargetFileTest, NamesEachDeviceOnceAndWithoutTheUsualPort) {
  std::istringstream lines("a\nA:5111\nother a\nb:5111\n");
  std::vector<runel::Address> targets;
  std::string why;
  ASSERT_TRUE(readTargets(lines, targets, why)) << why;
  ASSERT_EQ(targets.size(), 2U);
  EXPECT_EQ(targets[0].name(), "a");
  EXPECT_EQ(targets[1].name(), "b");
}

TEST(TargetFileTest, AnErrorNamesItsLine) {
  for (const char* text : {"a\n\na b c\n", "a\n\na:x\n"}) {
    std::istringstream lines(text);
    std::vector<runel::Address> targets;
    std::string why;
    EXPECT_FALSE(readTargets(lines, targets, why));
    EXPECT_EQ(why.substr(0, 8), "line 3: ") << why;
  }
}

TEST(RawTextTest, ReplacesEscapes) {
  std::string bytes;
  EXPECT_TRUE(readRawText("a\\n\\t\\r\\\\\\x00\\xfF", bytes));
  EXPECT_EQ(bytes, std::string("a\n\t\r\\\0\xff", 7));
}

TEST(RawTextTest, RejectsUnknownEscapes) {
  std::string bytes;
  for (const char* text : {"\\", "\\q", "\\x", "\\x0", "\\xg0"}) {
    EXPECT_FALSE(readRawText(text, bytes)) << text;
  }
}

}  // namespace
}  // namespace runelctl
