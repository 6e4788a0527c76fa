// SPDX-License-Identifier: Apache-2.0
// Leaps of the wall clock.
#include <string>
#include <vector>

#include "unit/gateway/fleet/fleet_case.h"

namespace runelgw::test {
namespace {

class GatewayRegistryClock : public FleetCase {
 protected:
  // One device that is online, one that was lost a day ago, one that is only in the database.
  void populate() {
    Snapshot snapshot;
    DeviceRecord old;
    old.id = 1;
    old.hostid = old.name = "old";
    old.decision = Decision::approved;
    old.firstSeen = kStart - 100 * kDay;
    old.lastSeen = kStart - 30 * kDay;
    snapshot.devices = {old};
    snapshot.nextDevice = 2;
    start({}, snapshot);
    connect("10.0.0.2", "away");
    lose("10.0.0.2");
    connect("10.0.0.3", "here");
    for (int hour = 0; hour < 24; ++hour) {
      clock.pass(kHour);
      registry->tick();
    }
  }
  void leap(std::int64_t by) {
    clock.wall += by;
    registry->tick();
  }
  void expectSane() {
    for (const Device* const one : registry->select(*Query::parse("@all"))) {
      for (const std::int64_t time :
           {one->firstSeen, one->lastSeen, one->lastLoss, one->connectedSince}) {
        EXPECT_GE(time, 0) << one->name;
      }
      EXPECT_LE(one->connectedSince, clock.wall) << one->name;
      if (one->name != "old") {
        EXPECT_LE(one->lastSeen, clock.wall) << one->name;
        EXPECT_LE(one->firstSeen, one->lastSeen) << one->name;
      }
    }
  }
};

TEST_F(GatewayRegistryClock, ALeapForwardMakesNoDeviceLookAsleep) {
  populate();
  leap(kYear);
  expectSane();
  EXPECT_EQ((std::vector<std::string>{"away", "here"}), select("seen<7d"));
  EXPECT_EQ(clock.wall - kDay, device("away").lastSeen);
  EXPECT_EQ(clock.wall - kDay, device("away").lastLoss);
  EXPECT_EQ(clock.wall - kDay, device("here").connectedSince);
  EXPECT_EQ(kStart - 30 * kDay,
            device("old").lastSeen);  // the database knew better than this clock
  EXPECT_EQ("problem the clock was set forward by 31536000 s", takeEvents().back());
  leap(-kYear);
  EXPECT_EQ(clock.wall - kDay, device("away").lastSeen);
}

TEST_F(GatewayRegistryClock, ALeapBackLeavesNoNegativeAges) {
  populate();
  leap(-kYear);
  expectSane();
  EXPECT_EQ(clock.wall - kDay, device("away").lastSeen);
  EXPECT_EQ(clock.wall - kDay, device("here").connectedSince);
  EXPECT_EQ((std::vector<std::string>{"away"}), select("seen>1h !old"));
  EXPECT_EQ((std::vector<std::string>{"here", "old"}), select("seen<1s"));  // old: in the future
}

TEST_F(GatewayRegistryClock, AClockThatIsSetLateMakesEarlierTimesTrue) {
  // A gateway without a battery starts in 1970.
  clock.wall = 5000;
  Snapshot snapshot;
  DeviceRecord old;
  old.id = 1;
  old.hostid = old.name = "old";
  old.lastSeen = kStart - kHour;
  snapshot.devices = {old};
  start({}, snapshot);
  connect("10.0.0.2", "new");
  lose("10.0.0.2");
  clock.pass(10000);
  registry->tick();
  leap(kStart - clock.wall);
  EXPECT_EQ(kStart - 10000, device("new").lastSeen);
  EXPECT_EQ(kStart - 10000, device("new").firstSeen);
  EXPECT_EQ(kStart - kHour, device("old").lastSeen);
  EXPECT_EQ((std::vector<std::string>{"new"}), select("seen<1m"));
  const Snapshot after = saved();
  ASSERT_EQ(1u, after.devices.size());  // nothing was learnt about the other one
  EXPECT_EQ(kStart - 10000, after.devices[0].lastSeen);
}

TEST_F(GatewayRegistryClock, RecordsDoNotExpireByALeap) {
  populate();
  registry->clause(place("10.0.0.3", 2), 3, "<a/>");
  registry->tick();
  const std::int64_t written = store.clauses.at(0).time;
  for (const std::int64_t by : {kYear, -kYear, -kYear, kYear}) {
    leap(by);
    EXPECT_GE(written, registry->timeline().cutoff(std::chrono::hours(24)));
    clock.pass(kHour);
    registry->tick();
  }
  clock.pass(kDay);
  registry->tick();
  EXPECT_LT(written, registry->timeline().cutoff(std::chrono::hours(24)));
}

TEST_F(GatewayRegistryClock, RulesAndSavesContinueAfterEachLeap) {
  populate();
  for (const std::int64_t by : {kYear, -2 * kYear}) {
    leap(by);
    const int before = savesOf(3);
    for (int second = 0; second < 130; ++second) {
      clock.pass(1000);
      registry->heard(3);
      registry->tick();
    }
    EXPECT_GE(savesOf(3) - before, 2);
    EXPECT_LE(savesOf(3) - before, 3);
  }
}

}  // namespace
}  // namespace runelgw::test
