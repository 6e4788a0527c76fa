// SPDX-License-Identifier: Apache-2.0
// Parsing of command line values: waves, devices, lists of devices, raw bytes.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <runel/address.h>

#include "cli/targets.h"
#include "commands/raw_text.h"
#include "fleet/waves.h"

namespace runelctl {
namespace {

using Sizes = std::vector<std::size_t>;

Sizes waves(const std::string& text, std::size_t devices) {
  Sizes sizes;
  EXPECT_TRUE(parseWaves(text, devices, sizes)) << text;
  return sizes;
}

TEST(WavesTest, AddUpToAllDevices) {
  EXPECT_EQ(waves("1,10%,rest", 200), (Sizes{1, 20, 179}));
  EXPECT_EQ(waves("", 7), (Sizes{7}));
  EXPECT_EQ(waves("1,2", 7), (Sizes{1, 2, 4})) << "the remaining devices are one more wave";
  EXPECT_EQ(waves("5,5,5", 7), (Sizes{5, 2}));
  EXPECT_EQ(waves("100%", 7), (Sizes{7}));
}

TEST(WavesTest, HaveAtLeastOneDevice) {
  EXPECT_EQ(waves("1%,rest", 7), (Sizes{1, 6}));
}

TEST(WavesTest, RejectMalformedText) {
  for (const char* text : {"x", "0", "-1", "101%", "1,,2", "1.5", "10 %", "rest%"}) {
    Sizes sizes;
    EXPECT_FALSE(parseWaves(text, 10, sizes)) << text;
  }
}

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
