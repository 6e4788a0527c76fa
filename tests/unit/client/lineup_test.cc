// SPDX-License-Identifier: Apache-2.0
// The connections that the master uses as slave connections.
#include "client/master/lineup.h"

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zell::ctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kSlave = Lineup::Role::slave;
constexpr auto kFurther = Lineup::Role::further;

class LineupTest : public ::testing::Test {
 protected:
  const Lineup::Time start_{};
  Lineup lineup_{Lineup::Rules{}};
};

TEST_F(LineupTest, UsesTheFirstConnectionOfAnAddressAsSlaveConnection) {
  EXPECT_EQ(lineup_.opened(1, "a", start_), kSlave);
  EXPECT_EQ(lineup_.opened(2, "b", start_), kSlave);
  EXPECT_THAT(lineup_.slavesAt("a"), ElementsAre(1));
  EXPECT_THAT(lineup_.slavesAt("c"), IsEmpty());
}

TEST_F(LineupTest, UsesNoOtherConnectionWhileTheFirstIsOpen) {
  ASSERT_EQ(lineup_.opened(1, "a", start_), kSlave);
  EXPECT_EQ(lineup_.opened(2, "a", start_), kFurther);
  EXPECT_EQ(lineup_.opened(3, "a", start_), kFurther);
  EXPECT_FALSE(lineup_.nextDue());
  EXPECT_THAT(lineup_.due(start_ + seconds(100000)), IsEmpty());
  EXPECT_EQ(lineup_.countAt("a"), 3U);
}

TEST_F(LineupTest, UsesAConnectionThatOutlivesTheSlaveConnectionByFiveSeconds) {
  (void)lineup_.opened(1, "a", start_);
  (void)lineup_.opened(2, "a", start_);
  lineup_.closed(1, start_ + seconds(10));
  EXPECT_EQ(lineup_.nextDue(), start_ + seconds(15));
  EXPECT_THAT(lineup_.due(start_ + milliseconds(14999)), IsEmpty());
  EXPECT_THAT(lineup_.due(start_ + seconds(15)), ElementsAre(2));
  EXPECT_THAT(lineup_.due(start_ + seconds(15)), IsEmpty());
  EXPECT_THAT(lineup_.slavesAt("a"), ElementsAre(2));
}

TEST_F(LineupTest, UsesOnlyOneOfTheSurvivingConnections) {
  for (Lineup::Id id = 1; id <= 3; ++id) {
    (void)lineup_.opened(id, "a", start_);
  }
  lineup_.closed(1, start_);
  EXPECT_THAT(lineup_.due(start_ + seconds(5)), ElementsAre(2));
  EXPECT_FALSE(lineup_.nextDue());
}

TEST_F(LineupTest, UsesANewConnectionImmediatelyAfterTheSlaveConnectionIsLost) {
  (void)lineup_.opened(1, "a", start_);
  (void)lineup_.opened(2, "a", start_);
  lineup_.closed(1, start_);
  EXPECT_EQ(lineup_.opened(3, "a", start_ + seconds(1)), kSlave);
  EXPECT_FALSE(lineup_.nextDue());
}

TEST_F(LineupTest, NeverUsesAConnectionThatSentData) {
  (void)lineup_.opened(1, "a", start_);
  (void)lineup_.opened(2, "a", start_);
  lineup_.spoke(2);
  lineup_.closed(1, start_);
  EXPECT_FALSE(lineup_.nextDue());
  EXPECT_THAT(lineup_.due(start_ + seconds(100000)), IsEmpty());
}

TEST_F(LineupTest, ForgetsAnAddressWithoutConnections) {
  (void)lineup_.opened(1, "a", start_);
  lineup_.closed(1, start_);
  EXPECT_EQ(lineup_.countAt("a"), 0U);
  EXPECT_EQ(lineup_.opened(2, "a", start_), kSlave);
}

class SharedLineupTest : public LineupTest {
 protected:
  Lineup shared_{Lineup::Rules{seconds(5), seconds(2)}};
};

TEST_F(SharedLineupTest, TreatsASilentConnectionAsAnotherDevice) {
  (void)shared_.opened(1, "a", start_);
  ASSERT_EQ(shared_.opened(2, "a", start_), kFurther);
  EXPECT_EQ(shared_.nextDue(), start_ + seconds(2));
  EXPECT_THAT(shared_.due(start_ + milliseconds(1999)), IsEmpty());
  EXPECT_THAT(shared_.due(start_ + seconds(2)), ElementsAre(2));
  EXPECT_THAT(shared_.slavesAt("a"), ElementsAre(1, 2));
}

TEST_F(SharedLineupTest, IgnoresAConnectionThatSendsDataInTime) {
  (void)shared_.opened(1, "a", start_);
  (void)shared_.opened(2, "a", start_);
  shared_.spoke(2);
  EXPECT_THAT(shared_.due(start_ + seconds(100)), IsEmpty());
}

// In any sequence of events, an address has at most one slave connection, and a connection that
// sent data is never one.
TEST_F(LineupTest, KeepsItsRulesUnderRandomEvents) {
  std::mt19937 random(5);
  std::map<Lineup::Id, std::string> open;
  std::set<Lineup::Id> spoke;
  Lineup::Time now = start_;
  Lineup::Id last = 0;
  for (int i = 0; i < 20000; ++i) {
    now += milliseconds(random() % 4000);
    const auto kind = random() % 4;
    if (kind == 0 || open.empty()) {
      open[++last] = std::string(1, static_cast<char>('a' + random() % 3));
      (void)lineup_.opened(last, open[last], now);
    } else {
      const auto some = std::next(open.begin(), static_cast<long>(random() % open.size()));
      const auto slaves = lineup_.slavesAt(some->second);
      if (kind == 1) {
        lineup_.closed(some->first, now);
        spoke.erase(some->first);
        open.erase(some);
      } else if (kind == 2 && (slaves.empty() || slaves[0] != some->first)) {
        lineup_.spoke(some->first);
        spoke.insert(some->first);
      } else {
        (void)lineup_.due(now);
        ASSERT_TRUE(!lineup_.nextDue() || *lineup_.nextDue() > now);
      }
    }
    for (const char* address : {"a", "b", "c"}) {
      const auto slaves = lineup_.slavesAt(address);
      ASSERT_LE(slaves.size(), 1U);
      ASSERT_TRUE(slaves.empty() || spoke.count(slaves[0]) == 0);
    }
  }
}

}  // namespace
}  // namespace zell::ctl
