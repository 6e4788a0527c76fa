// SPDX-License-Identifier: Apache-2.0
// Sizes on the command line.
#include "commands/size_range.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

constexpr std::uint64_t kMiB = 1048576;

// The bytes of @p text, or the error.
std::string parsed(std::string text, std::uint64_t least = 4096, std::uint64_t most = 16 * kMiB) {
  const std::string wrong = sizeRange(least, most)(text);
  return wrong.empty() ? text : wrong;
}

TEST(SizeRangeTest, TakesBytesAndUnits) {
  EXPECT_EQ(parsed("4096"), "4096");
  EXPECT_EQ(parsed("5K"), "5120");
  EXPECT_EQ(parsed("16m"), "16777216");
  EXPECT_EQ(parsed("1G", 0, 1024 * kMiB), "1073741824");
}

TEST(SizeRangeTest, SaysTheRangeInUnits) {
  for (const char* text : {"4095", "16777217", "3K", "17M", "1G", "x", "", "4096Q", "-1",
                           "5 apples", "99999999999999999999", "99999999999999999G"}) {
    EXPECT_EQ(parsed(text), "'" + std::string(text) + "': expected a size from 4K to 16M");
  }
  EXPECT_EQ(parsed("0", 1000, 1024 * 1024 * kMiB), "'0': expected a size from 1000 to 1024G");
}

}  // namespace
}  // namespace runelctl
