// SPDX-License-Identifier: Apache-2.0
// Parsing of command line values: lists of devices, raw bytes.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <runel/address.h>

#include "cli/targets.h"
#include "commands/raw_text.h"

namespace runelctl {
namespace {

TEST(TargetListTest, RemovesDuplicatesAndBlanks) {
  std::vector<runel::Address> targets;
  std::string why;
  EXPECT_TRUE(parseTargetList("a, b,,a:5111,a:1", targets, why));
  ASSERT_EQ(targets.size(), 3U);
  EXPECT_EQ(targets[1].name(), "b");
  EXPECT_FALSE(parseTargetList(" , ", targets, why));
}

TEST(TargetFileTest, HasNamesAndComments) {
  std::istringstream lines("# all\n one 10.0.0.1 # first\n\n10.0.0.2:99\r\n");
  std::vector<runel::Address> targets;
  std::string why;
  ASSERT_TRUE(readTargets(lines, targets, why)) << why;
  ASSERT_EQ(targets.size(), 2U);
  EXPECT_EQ(targets[0].name(), "one");
  EXPECT_EQ(targets[1].name(), "10.0.0.2:99");
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
