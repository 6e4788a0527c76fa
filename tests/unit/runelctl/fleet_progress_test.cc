// SPDX-License-Identifier: Apache-2.0
// The progress of many transfers together.
#include "fleet/fleet_progress.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace runelctl {
namespace {

using std::chrono::seconds;

constexpr std::uint64_t kMiB = 1048576;

class FleetProgressTest : public ::testing::Test {
 protected:
  void update(std::size_t index, std::uint64_t done, std::uint64_t total) {
    progress.update(index, {done * kMiB, total * kMiB, "file"});
  }
  std::string after(int passed) { return progress.text(begin + seconds(passed)); }

  FleetProgress progress{4};
  FleetProgress::Time begin = runel::Clock::now();
};

TEST_F(FleetProgressTest, IsEmptyBeforeAnyProgress) {
  EXPECT_EQ(after(0), "");
  progress.begin(0);
  progress.end(0);
  EXPECT_EQ(after(1), "");
}

TEST_F(FleetProgressTest, SumsTheBytesOfAllDevices) {
  for (std::size_t i = 0; i < 4; ++i) {
    update(i, i, 100);
  }
  EXPECT_EQ(after(0), "6.0 MiB of 400 MiB");
}

TEST_F(FleetProgressTest, ADeviceThatHasNotStartedCountsAsTheAverage) {
  update(0, 0, 100);
  update(1, 0, 300);
  EXPECT_EQ(after(0), "0 B of 800 MiB");
}

TEST_F(FleetProgressTest, ShowsTheRateAndTheRemainingTime) {
  for (std::size_t i = 0; i < 4; ++i) {
    update(i, 0, 100);
  }
  (void)after(0);
  update(0, 20, 100);
  update(1, 20, 100);
  EXPECT_EQ(after(10), "40.0 MiB of 400 MiB 4.0 MiB/s 1:30");
}

TEST_F(FleetProgressTest, TheRateIsThatOfTheLastSeconds) {
  update(0, 0, 1000);
  for (int i = 0; i < 100; ++i) {
    update(0, static_cast<std::uint64_t>(i < 50 ? i : 50 + (i - 50) * 2), 1000);
    (void)after(i);
  }
  EXPECT_NE(after(99).find(" 2.0 MiB/s "), std::string::npos) << after(99);
}

TEST_F(FleetProgressTest, AFailedDeviceIsNotExpectedToContinue) {
  for (std::size_t i = 0; i < 4; ++i) {
    update(i, 10, 100);
  }
  progress.end(0);
  EXPECT_EQ(after(0), "40.0 MiB of 310 MiB");
}

TEST_F(FleetProgressTest, ARepeatedAttemptStartsAgain) {
  FleetProgress one(1);
  one.begin(0);
  one.update(0, {0, 100 * kMiB, ""});
  one.update(0, {50 * kMiB, 100 * kMiB, ""});
  one.begin(0);
  EXPECT_EQ(one.text(begin), "0 B of 100 MiB");
  one.update(0, {40 * kMiB, 100 * kMiB, ""});  // resumed: these bytes were not moved again
  EXPECT_EQ(one.text(begin + seconds(5)), "40.0 MiB of 100 MiB");
}

}  // namespace
}  // namespace runelctl
