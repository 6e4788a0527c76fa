// SPDX-License-Identifier: Apache-2.0
// Equal outputs of many devices.
#include "fleet/output_groups.h"

#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

runel::HeldBytes held(const std::string& text,
                      const std::shared_ptr<runel::Spool>& spool = nullptr) {
  runel::HeldBytes bytes(spool);
  bytes.add(text);
  return bytes;
}

TEST(OutputGroupsTest, EqualOutputsWithEqualLabelsAreOneGroup) {
  OutputGroups groups;
  groups.add(2, "c", "", held("same"));
  groups.add(1, "b", ": exit status 3", held("same"));
  groups.add(0, "a", "", held("same"));
  groups.add(3, "d", "", held("other"));
  const std::vector<OutputGroup> all = groups.release();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0].devices, (std::map<std::size_t, std::string>{{0, "a"}, {2, "c"}}));
  EXPECT_EQ(all[1].label, ": exit status 3");
  EXPECT_EQ(all[2].devices.begin()->second, "d");
  EXPECT_TRUE(groups.release().empty());
}

TEST(OutputGroupsTest, AnEqualOutputIsHeldOnce) {
  const auto spool = std::make_shared<runel::Spool>(std::size_t{64} << 20U);
  OutputGroups groups;
  groups.add(0, "a", "", held(std::string(1 << 20U, 'x'), spool));
  const std::size_t used = spool->used();
  for (std::size_t i = 1; i < 10; ++i) {
    groups.add(i, std::to_string(i), "", held(std::string(1 << 20U, 'x'), spool));
  }
  EXPECT_EQ(spool->used(), used);
}

TEST(OutputGroupsTest, OutputsInAFileAndInMemoryAreCompared) {
  const auto none = std::make_shared<runel::Spool>(0);
  OutputGroups groups;
  const std::string text(1 << 20U, 'x');
  groups.add(0, "a", "", held(text));
  groups.add(1, "b", "", held(text, none));
  groups.add(2, "c", "", held(text + "y", none));
  EXPECT_EQ(groups.release().size(), 2U);
}

/// The processor time of @p count different outputs, in seconds.
double timeOfOutputs(std::size_t count) {
  const std::string common(4096, 'x');
  OutputGroups groups;
  const std::clock_t begin = std::clock();
  for (std::size_t i = 0; i < count; ++i) {
    groups.add(i, "device", "", held(common + std::to_string(1000000 + i)));
  }
  EXPECT_EQ(groups.release().size(), count);
  return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
}

// A busy machine lengthens the times: measures again until the ratio is met. A time that grows with
// the square is 400 times as long in each measurement.
TEST(OutputGroupsTest, TheTimeIsLinearInTheNumberOfDifferentOutputs) {
  double ratio = 0;
  for (int i = 0; i < 20; ++i) {
    const double base = timeOfOutputs(1000) + 0.0005;
    ratio = timeOfOutputs(20000) / base;
    if (ratio < 200) {
      break;
    }
  }
  EXPECT_LT(ratio, 200);
}

}  // namespace
}  // namespace runelctl
