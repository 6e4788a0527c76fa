// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/timeline.h"

#include <chrono>

#include <gtest/gtest.h>

namespace {

using runelgw::Timeline;
using std::chrono::hours;
using std::chrono::milliseconds;

constexpr std::int64_t kHourOfMs = 3600 * 1000;
constexpr std::int64_t kYear = 365 * 24 * kHourOfMs;
constexpr std::int64_t kStart = 1'700'000'000'000;

struct LeapingClock {
  std::int64_t wall = kStart;
  runel::Clock::time_point steady{hours(1)};

  [[nodiscard]] runelgw::Clocks clocks() {
    return {[this] { return wall; }, [this] { return steady; }};
  }
  void pass(std::int64_t time) {
    wall += time;
    steady += milliseconds(time);
  }
};

TEST(GatewayTimeline, TimeThatPassesIsNoLeap) {
  LeapingClock clock;
  Timeline timeline(clock.clocks());
  clock.pass(kYear);
  EXPECT_EQ(0, timeline.check());
  clock.wall += 59000;  // a small step
  EXPECT_EQ(0, timeline.check());
  EXPECT_EQ(kStart + kYear + 59000 - 24 * kHourOfMs, timeline.cutoff(hours(24)));
}

TEST(GatewayTimeline, ALeapForwardMakesNothingOld) {
  LeapingClock clock;
  Timeline timeline(clock.clocks());
  clock.pass(10 * kHourOfMs);
  const std::int64_t written = timeline.now();
  clock.wall += kYear;
  EXPECT_GE(written, timeline.cutoff(hours(24)));  // even before the leap is noted
  EXPECT_EQ(kYear, timeline.check());
  EXPECT_EQ(0, timeline.check());
  EXPECT_GE(written, timeline.cutoff(hours(24)));
  clock.pass(23 * kHourOfMs);
  EXPECT_GE(written, timeline.cutoff(hours(24)));
  clock.pass(2 * kHourOfMs);  // now it is 25 hours old
  EXPECT_LT(written, timeline.cutoff(hours(24)));
  EXPECT_EQ(timeline.now() - 24 * kHourOfMs, timeline.cutoff(hours(24)));
}

TEST(GatewayTimeline, WhatWasOldBeforeALeapStaysOld) {
  LeapingClock clock;
  Timeline timeline(clock.clocks());
  const std::int64_t old = timeline.now() - 25 * kHourOfMs;
  clock.wall += kYear;
  (void)timeline.check();
  EXPECT_LT(old, timeline.cutoff(hours(24)));
}

TEST(GatewayTimeline, ALeapBackMakesNothingOld) {
  LeapingClock clock;
  Timeline timeline(clock.clocks());
  const std::int64_t written = timeline.now();
  clock.wall -= kYear;
  EXPECT_EQ(-kYear, timeline.check());
  const std::int64_t later = timeline.now();
  clock.pass(23 * kHourOfMs);
  EXPECT_GE(written, timeline.cutoff(hours(24)));
  EXPECT_GE(later, timeline.cutoff(hours(24)));
}

TEST(GatewayTimeline, ALeapBackAndForwardMakesNothingOld) {
  LeapingClock clock;
  Timeline timeline(clock.clocks());
  clock.wall -= kYear;
  (void)timeline.check();
  const std::int64_t between = timeline.now();
  clock.pass(kHourOfMs);
  clock.wall += kYear;
  (void)timeline.check();
  EXPECT_GE(between, timeline.cutoff(hours(24)));
  clock.pass(24 * kHourOfMs);
  EXPECT_LT(between, timeline.cutoff(hours(24)));
}

TEST(GatewayTimeline, NoTimeIsNegative) {
  LeapingClock clock;
  clock.wall = -5;
  Timeline timeline(clock.clocks());
  EXPECT_EQ(1, timeline.now());
  EXPECT_EQ(0, timeline.cutoff(hours(24)));
}

TEST(GatewayTimeline, TheClocksOfTheSystemAdvance) {
  const runelgw::Clocks clocks = runelgw::Clocks::system();
  EXPECT_GT(clocks.wall(), 1'600'000'000'000);
  const auto before = clocks.steady();
  EXPECT_LE(before, clocks.steady());
}

}  // namespace
