// SPDX-License-Identifier: Apache-2.0
// The devices that a run waits for: their names, and whether the others wait for them.
#include "fleet/awaited_devices.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <runel/async_device.h>
#include <runel/loop.h>

namespace runelctl {
namespace {

using std::chrono::seconds;

class AwaitedDevicesTest : public ::testing::Test {
 protected:
  void enter(std::size_t index, AwaitedDevices::Time at) {
    awaited.enter(index, "d" + std::to_string(index), device, at);
  }

  runel::Loop loop;
  runel::AsyncDevice device{loop, runel::Address("127.0.0.1", 9)};  // it never connects
  AwaitedDevices awaited;
  const AwaitedDevices::Time begin{seconds(1000)};
};

TEST(SilenceTextTest, TellsABusyDeviceFromALostOne) {
  EXPECT_EQ(silenceText(runel::Milliseconds(4999), true), "");
  EXPECT_EQ(silenceText(seconds(40), true), "busy for 40 s");
  EXPECT_EQ(silenceText(seconds(40), false), "no acknowledgement for 40 s");
}

TEST_F(AwaitedDevicesTest, NamesDevicesThatTakeLong) {
  enter(1, begin);
  enter(2, begin + seconds(3));
  EXPECT_EQ(awaited.text(begin + seconds(1)), "");
  EXPECT_EQ(awaited.text(begin + seconds(4)), "d1");
  EXPECT_EQ(awaited.text(begin + seconds(5)), "d1, d2");
  awaited.end(1, begin + seconds(5));
  EXPECT_EQ(awaited.text(begin + seconds(6)), "d2");
}

TEST_F(AwaitedDevicesTest, CountsTheNamesThatAreNotShown) {
  for (std::size_t index = 1; index <= 9; ++index) {
    enter(index, begin);
  }
  EXPECT_EQ(awaited.text(begin + seconds(5)), "d1, d2, d3, d4, d5 and 4 more");
}

TEST_F(AwaitedDevicesTest, EscapesNames) {
  awaited.enter(0, "a\x1b[2J", device, begin);
  EXPECT_EQ(awaited.text(begin + seconds(5)), "a\\x1b[2J");
}

TEST_F(AwaitedDevicesTest, AFurtherAttemptIsNoNewBegin) {
  enter(1, begin);
  awaited.leave(1);
  EXPECT_EQ(awaited.text(begin + seconds(5)), "d1");
  enter(1, begin + seconds(6));
  EXPECT_EQ(awaited.text(begin + seconds(7)), "d1");
  EXPECT_EQ(awaited.stateOfOne(), "");
}

TEST_F(AwaitedDevicesTest, ADeviceIsLateAfterTwiceTheTimeOfTheOthers) {
  EXPECT_FALSE(awaited.allLate(begin)) << "no device is awaited";
  enter(1, begin);
  enter(2, begin);
  EXPECT_FALSE(awaited.allLate(begin + seconds(5)));
  EXPECT_TRUE(awaited.allLate(begin + seconds(6))) << "longer than 5 s, and none has ended";
  awaited.end(1, begin + seconds(10));
  EXPECT_FALSE(awaited.allLate(begin + seconds(20)));
  EXPECT_TRUE(awaited.allLate(begin + seconds(21)));
  enter(3, begin + seconds(21));
  EXPECT_FALSE(awaited.allLate(begin + seconds(22))) << "one has only begun";
}

}  // namespace
}  // namespace runelctl
