// SPDX-License-Identifier: Apache-2.0
// The version in the file of an installation.
#include "commands/installed_version.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

TEST(InstalledVersionTest, ReadsAVersionOfOneLine) {
  EXPECT_EQ(parseVersion("1.0.0\n"), "1.0.0");
  EXPECT_EQ(parseVersion("1.0.0"), "1.0.0");
  EXPECT_EQ(parseVersion("1:2.0~rc1+git20260301-1_a\n"), "1:2.0~rc1+git20260301-1_a");
  EXPECT_EQ(parseVersion(std::string(64, '1') + "\n"), std::string(64, '1'));
}

TEST(InstalledVersionTest, DoesNotReadAMalformedVersion) {
  for (const char* text : {"", "\n", "1.0\n\n", "1.0\n2.0\n", "1.0\r\n", " 1.0", "1.0 ", "1.0\"",
                           "1.0'", "1|0", "1\\0", "\xc3\xa4", "\xff", "1{0}", "1=0", "\x1b[0m"}) {
    EXPECT_EQ(parseVersion(text), std::nullopt) << text;
  }
  EXPECT_EQ(parseVersion(std::string("1\0", 2)), std::nullopt);
  EXPECT_EQ(parseVersion(std::string(65, '1')), std::nullopt);
}

}  // namespace
}  // namespace runelctl
