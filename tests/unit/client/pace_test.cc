// SPDX-License-Identifier: Apache-2.0
#include "client/master/pace.h"

#include <chrono>

#include <gtest/gtest.h>

namespace runel {
namespace {

using std::chrono::milliseconds;

TEST(PaceTest, GivesSoManyTurnsASecond) {
  for (const std::size_t rate : {1U, 7U, 1000U, 50000U}) {
    Pace pace(rate);
    Clock::time_point now{std::chrono::hours(1000)};
    (void)pace.take(now, 1000000);
    std::size_t taken = 0;
    for (int step = 0; step < 1000; ++step) {
      now += milliseconds(10);
      taken += pace.take(now, 1000000);
    }
    EXPECT_NEAR(static_cast<double>(taken), 10.0 * static_cast<double>(rate),
                static_cast<double>(rate) * 0.02 + 1)
        << rate;
  }
}

TEST(PaceTest, APauseGivesFewMoreAtOnce) {
  Pace pace(1000);
  Clock::time_point now{std::chrono::hours(1000)};
  EXPECT_LE(pace.take(now, 1000000), 20U);
  EXPECT_LE(pace.take(now + std::chrono::hours(1), 1000000), 21U);
  EXPECT_EQ(pace.take(now, 5), 0U) << "a clock that goes back gives none";
}

TEST(PaceTest, TellsWhenTheNextTurnIs) {
  Pace pace(2);
  Clock::time_point now{std::chrono::hours(1000)};
  EXPECT_EQ(pace.take(now, 10), 1U);
  EXPECT_EQ(pace.pause(), milliseconds(500));
  EXPECT_EQ(pace.take(now + milliseconds(499), 10), 0U);
  EXPECT_EQ(pace.take(now + milliseconds(500), 10), 1U);
}

TEST(PaceTest, WithoutALimitThereAreAsManyAsWanted) {
  Pace pace(0);
  EXPECT_FALSE(pace.isLimited());
  EXPECT_EQ(pace.take(Clock::now(), 12345), 12345U);
}

}  // namespace
}  // namespace runel
