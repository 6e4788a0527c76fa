// SPDX-License-Identifier: Apache-2.0
// The sizes of waves.
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <runel/fleet.h>

#include "client/fleet/waves.h"

namespace runel {
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
    const Result<void> result = FleetOptions().setWaves(text);
    ASSERT_FALSE(result.ok()) << text;
    EXPECT_EQ(result.error().kind(), Kind::local);
    EXPECT_NE(result.error().text().find(text), std::string::npos) << result.error().text();
  }
}

}  // namespace
}  // namespace runel
