// SPDX-License-Identifier: Apache-2.0
// Equal texts about devices in one line.
#include "fleet/folded_lines.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

using Lines = std::vector<std::string>;

TEST(FoldedLinesTest, NamesTheDevicesInTheirOrderAndTheTextsAsTheyCame) {
  FoldedLines lines;
  EXPECT_TRUE(lines.empty());
  lines.add(7, "gw-07", "lost");
  lines.add(5, "gw-05", "sent");
  lines.add(1, "hall", "lost");
  lines.add(4, "gw-04", "sent");
  lines.add(6, "gw-06", "sent");
  EXPECT_FALSE(lines.empty());
  EXPECT_EQ(lines.take(), (Lines{"hall,gw-07: lost", "gw-[04-06]: sent"}));
}

TEST(FoldedLinesTest, ADeviceMayHaveSeveralTexts) {
  FoldedLines lines;
  lines.add(0, "a", "lost");
  lines.add(0, "a", "back");
  lines.add(0, "a", "lost");
  EXPECT_EQ(lines.take(), (Lines{"a: lost", "a: back"}));
}

TEST(FoldedLinesTest, StartsAgainAfterwards) {
  FoldedLines lines;
  lines.add(0, "a", "lost");
  (void)lines.take();
  EXPECT_TRUE(lines.empty() && lines.take().empty());
  lines.add(1, "b", "lost");
  EXPECT_EQ(lines.take(), Lines{"b: lost"});
}

}  // namespace
}  // namespace runelctl
