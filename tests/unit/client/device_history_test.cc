// SPDX-License-Identifier: Apache-2.0
// The statistics of devices across connections.
#include <string>

#include <gtest/gtest.h>

#include "client/master/device_history.h"

namespace runel {
namespace {

TEST(DeviceHistoryTest, CountsConnectsAndLosses) {
  DeviceHistory roll;
  roll.connected("a", 100);
  roll.lost("a", 200, "gone", {});
  roll.connected("a", 300);
  EXPECT_EQ(roll.of("a").firstSeen, 100);
  EXPECT_EQ(roll.of("a").connects, 2U);
  EXPECT_EQ(roll.of("a").losses, 1U);
  EXPECT_EQ(roll.of("a").lastLoss, 200);
  EXPECT_EQ(roll.of("a").lastReason, "gone");
}

TEST(DeviceHistoryTest, AddsUpTheCountersOfEarlierConnections) {
  DeviceHistory roll;
  for (int round = 0; round < 2; ++round) {
    roll.connected("a", 1);
    roll.lost("a", 2, "", {3, 50, 70});
  }
  EXPECT_EQ(roll.of("a").earlier.requests, 6U);
  EXPECT_EQ(roll.of("a").earlier.bytesOut, 100U);
  EXPECT_EQ(roll.of("a").earlier.bytesIn, 140U);
}

TEST(DeviceHistoryTest, HasAnEmptyEntryForUnknownDevices) {
  const DeviceHistory roll;
  EXPECT_EQ(roll.of("unknown").connects, 0U);
}

TEST(DeviceHistoryTest, ForgetsTheDeviceWithTheOldestLoss) {
  DeviceHistory roll(2);
  for (const char* name : {"a", "b", "c"}) {
    roll.connected(name, 1);
  }
  roll.lost("b", 10, "", {});
  roll.lost("a", 20, "", {});
  roll.lost("c", 30, "", {});
  EXPECT_EQ(roll.of("b").connects, 0U);
  EXPECT_EQ(roll.of("a").connects, 1U);
  EXPECT_EQ(roll.of("c").connects, 1U);
}

TEST(DeviceHistoryTest, KeepsConnectedDevices) {
  DeviceHistory roll(1);
  roll.connected("there", 1);
  roll.connected("there", 1);
  roll.lost("there", 2, "", {});  // the other connection is still open
  for (int number = 0; number < 10; ++number) {
    const std::string name = "n" + std::to_string(number);
    roll.connected(name, 3);
    roll.lost(name, 4 + number, "", {});
  }
  EXPECT_EQ(roll.of("there").connects, 2U);
  EXPECT_EQ(roll.of("n8").connects, 0U);
  EXPECT_EQ(roll.of("n9").connects, 1U);
}

// The clock may be set back: the order of the losses counts.
TEST(DeviceHistoryTest, ForgetsInTheOrderOfTheLosses) {
  DeviceHistory roll(2);
  for (int number = 0; number < 100; ++number) {
    const std::string name = "n" + std::to_string(number);
    roll.connected(name, 1);
    roll.lost(name, 1000 - number, "", {});
    EXPECT_EQ(roll.of("n" + std::to_string(number - 2)).connects, 0U);
    EXPECT_EQ(roll.of("n" + std::to_string(number - 1)).connects, number == 0 ? 0U : 1U);
  }
}

TEST(DeviceHistoryTest, KeepsDevicesThatReconnect) {
  DeviceHistory roll(1);
  roll.connected("a", 1);
  roll.lost("a", 2, "", {});
  roll.connected("a", 3);
  roll.connected("b", 4);
  roll.lost("b", 5, "", {});
  EXPECT_EQ(roll.of("a").connects, 2U);
  EXPECT_EQ(roll.of("b").connects, 1U);
}

TEST(DeviceHistoryTest, KeepsNothingIfItMustNot) {
  DeviceHistory history(0);
  history.connected("a", 1);
  EXPECT_EQ(history.of("a").connects, 0U);
  history.lost("a", 2, "gone", {});
  EXPECT_EQ(history.of("a").losses, 0U);
}

}  // namespace
}  // namespace runel
