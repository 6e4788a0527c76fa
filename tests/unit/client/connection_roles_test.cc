// SPDX-License-Identifier: Apache-2.0
// The connections that the master uses as slave connections.
#include "client/master/connection_roles.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace runel {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kSlave = ConnectionRoles::Role::slave;
constexpr auto kFurther = ConnectionRoles::Role::further;

class ConnectionRolesTest : public ::testing::Test {
 protected:
  const ConnectionRoles::Time start_{};
  ConnectionRoles roles_{ConnectionRoles::Rules{}};
};

TEST_F(ConnectionRolesTest, UsesTheFirstConnectionOfAnAddressAsSlaveConnection) {
  EXPECT_EQ(roles_.opened(1, "a", start_), kSlave);
  EXPECT_EQ(roles_.opened(2, "b", start_), kSlave);
  EXPECT_THAT(roles_.slavesAt("a"), ElementsAre(1));
  EXPECT_THAT(roles_.slavesAt("c"), IsEmpty());
}

TEST_F(ConnectionRolesTest, UsesNoOtherConnectionWhileTheFirstIsOpen) {
  ASSERT_EQ(roles_.opened(1, "a", start_), kSlave);
  EXPECT_EQ(roles_.opened(2, "a", start_), kFurther);
  EXPECT_EQ(roles_.opened(3, "a", start_), kFurther);
  EXPECT_FALSE(roles_.nextDue());
  EXPECT_THAT(roles_.due(start_ + seconds(100000)), IsEmpty());
  EXPECT_EQ(roles_.countAt("a"), 3U);
}

TEST_F(ConnectionRolesTest, UsesAConnectionThatOutlivesTheSlaveConnectionByFiveSeconds) {
  (void)roles_.opened(1, "a", start_);
  (void)roles_.opened(2, "a", start_);
  roles_.closed(1, start_ + seconds(10));
  EXPECT_EQ(roles_.nextDue(), start_ + seconds(15));
  EXPECT_THAT(roles_.due(start_ + milliseconds(14999)), IsEmpty());
  EXPECT_THAT(roles_.due(start_ + seconds(15)), ElementsAre(2));
  EXPECT_THAT(roles_.due(start_ + seconds(15)), IsEmpty());
  EXPECT_THAT(roles_.slavesAt("a"), ElementsAre(2));
}

TEST_F(ConnectionRolesTest, UsesOnlyOneOfTheSurvivingConnections) {
  for (ConnectionRoles::Id id = 1; id <= 3; ++id) {
    (void)roles_.opened(id, "a", start_);
  }
  roles_.closed(1, start_);
  EXPECT_THAT(roles_.due(start_ + seconds(5)), ElementsAre(2));
  EXPECT_FALSE(roles_.nextDue());
}

TEST_F(ConnectionRolesTest, UsesANewConnectionImmediatelyAfterTheSlaveConnectionIsLost) {
  (void)roles_.opened(1, "a", start_);
  (void)roles_.opened(2, "a", start_);
  roles_.closed(1, start_);
  EXPECT_EQ(roles_.opened(3, "a", start_ + seconds(1)), kSlave);
  EXPECT_FALSE(roles_.nextDue());
}

TEST_F(ConnectionRolesTest, NeverUsesAConnectionThatSentData) {
  (void)roles_.opened(1, "a", start_);
  (void)roles_.opened(2, "a", start_);
  roles_.spoke(2);
  roles_.closed(1, start_);
  EXPECT_FALSE(roles_.nextDue());
  EXPECT_THAT(roles_.due(start_ + seconds(100000)), IsEmpty());
}

TEST_F(ConnectionRolesTest, ForgetsAnAddressWithoutConnections) {
  (void)roles_.opened(1, "a", start_);
  roles_.closed(1, start_);
  EXPECT_EQ(roles_.countAt("a"), 0U);
  EXPECT_EQ(roles_.opened(2, "a", start_), kSlave);
}

// After a restart of the master a device may still have its old slave connection: then the next one
// is a bridge.
class WaitingTest : public ConnectionRolesTest {
 protected:
  void openAndWait(ConnectionRoles::Id id, int until) {
    ASSERT_EQ(roles_.opened(id, "a", start_), kSlave);
    roles_.wait(id, start_ + seconds(until));
  }
  std::string waited(int now) {
    std::string found;
    for (const auto& [id, role] : roles_.waited(start_ + seconds(now))) {
      found += std::to_string(id) + (role == kSlave ? " slave " : " further ");
    }
    return found;
  }
};

TEST_F(WaitingTest, UsesAConnectionThatWasSilentUntilTheEnd) {
  openAndWait(1, 75);
  EXPECT_EQ(roles_.nextDue(), start_ + seconds(75));
  EXPECT_THAT(roles_.slavesAt("a"), IsEmpty());
  EXPECT_EQ(waited(74), "");
  EXPECT_EQ(waited(75), "1 slave ");
  EXPECT_EQ(waited(75), "");
  EXPECT_THAT(roles_.slavesAt("a"), ElementsAre(1));
}

TEST_F(WaitingTest, UsesNoOtherConnectionMeanwhile) {
  openAndWait(1, 75);
  EXPECT_EQ(roles_.opened(2, "a", start_ + seconds(74)), kFurther);
  EXPECT_THAT(roles_.due(start_ + seconds(1000)), IsEmpty());
  EXPECT_EQ(waited(75), "1 slave ");
  EXPECT_THAT(roles_.due(start_ + seconds(1000)), IsEmpty());
}

// The slave connection that only the device knows ends together with the bridge.
TEST_F(WaitingTest, AConnectionThatSpeaksIsABridgeAndTheSlaveConnectionComesAfterItsEnd) {
  openAndWait(1, 75);
  ASSERT_EQ(roles_.opened(2, "a", start_), kFurther);
  roles_.spoke(1);
  EXPECT_EQ(waited(1000), "");
  EXPECT_THAT(roles_.due(start_ + seconds(1000)), IsEmpty()) << "2 may be surplus";
  EXPECT_EQ(roles_.opened(3, "a", start_), kFurther);
  roles_.closed(1, start_ + seconds(60));
  EXPECT_THAT(roles_.due(start_ + seconds(64)), IsEmpty());
  EXPECT_THAT(roles_.due(start_ + seconds(65)), ElementsAre(2));
  EXPECT_FALSE(roles_.nextDue());
}

TEST_F(WaitingTest, TheNextConnectionIsTheSlaveConnectionWhenABridgeHasEnded) {
  openAndWait(1, 75);
  roles_.spoke(1);
  roles_.closed(1, start_ + seconds(60));
  EXPECT_EQ(roles_.opened(2, "a", start_ + seconds(60)), kSlave);
}

TEST_F(WaitingTest, ASlaveConnectionThatIsNotWrittenToMayStillSpeak) {
  ASSERT_EQ(roles_.opened(1, "a", start_), kSlave);
  roles_.spoke(1);
  EXPECT_THAT(roles_.slavesAt("a"), IsEmpty());
  EXPECT_EQ(roles_.opened(2, "a", start_), kFurther);
  EXPECT_THAT(roles_.due(start_ + seconds(1000)), IsEmpty());
}

TEST_F(WaitingTest, TheFirstOfSeveralBecomesTheSlaveConnection) {
  openAndWait(1, 75);
  roles_.closed(1, start_);
  openAndWait(2, 80);
  EXPECT_EQ(roles_.opened(3, "a", start_), kFurther);
  EXPECT_EQ(waited(1000), "2 slave ");
}

class SharedLineupTest : public ConnectionRolesTest {
 protected:
  ConnectionRoles shared_{ConnectionRoles::Rules{seconds(5), seconds(2)}};
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

TEST_F(SharedLineupTest, UsesTheFirstSurvivorAndEachSilentConnection) {
  for (ConnectionRoles::Id id = 1; id <= 3; ++id) {
    (void)shared_.opened(id, "a", start_ + seconds(id));
  }
  shared_.spoke(3);
  EXPECT_THAT(shared_.due(start_ + seconds(4)), ElementsAre(2));
  EXPECT_FALSE(shared_.onlySlaveAt("a"));
  shared_.closed(1, start_ + seconds(4));
  EXPECT_EQ(shared_.onlySlaveAt("a"), 2U);
  shared_.closed(2, start_ + seconds(4));
  EXPECT_FALSE(shared_.onlySlaveAt("a"));
  EXPECT_FALSE(shared_.nextDue()) << "the remaining connection sent data";
  EXPECT_EQ(shared_.countAt("a"), 1U);
}

// When a connection becomes a slave connection, looking through all of them.
class PlainModel {
 public:
  struct Member {
    std::string address;
    bool slave = false;
    bool spoke = false;
    ConnectionRoles::Time opened;
  };

  bool hasSlave(const std::string& address) const {
    return std::any_of(members.begin(), members.end(), [&](const auto& entry) {
      return entry.second.address == address && entry.second.slave;
    });
  }
  std::set<ConnectionRoles::Id> due(ConnectionRoles::Time now) {
    std::set<ConnectionRoles::Id> found;
    for (auto& [id, member] : members) {
      const bool orphan =
          !hasSlave(member.address) && slaveLost[member.address] + seconds(5) <= now;
      if (!member.slave && !member.spoke && (orphan || member.opened + seconds(2) <= now)) {
        member.slave = true;
        found.insert(id);
      }
    }
    return found;
  }

  std::map<ConnectionRoles::Id, Member> members;
  std::map<std::string, ConnectionRoles::Time> slaveLost;
};

TEST_F(SharedLineupTest, DecidesLikeASearchThroughAllConnections) {
  constexpr std::size_t kMost = 50;  // the model's time grows with them
  std::mt19937 random(6);
  PlainModel model;
  ConnectionRoles::Time now = start_;
  for (ConnectionRoles::Id id = 1; id < 20000; ++id) {
    now += milliseconds(random() % 1000);
    const std::string address(1, static_cast<char>('a' + random() % 3));
    const bool slave = shared_.opened(id, address, now) == kSlave;
    ASSERT_EQ(slave, !model.hasSlave(address));
    model.members[id] = {address, slave, false, now};
    const auto some =
        std::next(model.members.begin(), static_cast<long>(random() % model.members.size()));
    const bool full = model.members.size() > kMost;
    if (!full && !some->second.slave && random() % 2 == 0) {
      shared_.spoke(some->first);
      some->second.spoke = true;
    } else if (full || random() % 4 != 0) {
      shared_.closed(some->first, now);
      const PlainModel::Member gone = some->second;
      model.members.erase(some);
      if (gone.slave && !model.hasSlave(gone.address)) {
        model.slaveLost[gone.address] = now;
      }
    }
    const bool expectsNothing = !shared_.nextDue() || *shared_.nextDue() > now;
    const auto due = shared_.due(now);
    ASSERT_EQ(std::set<ConnectionRoles::Id>(due.begin(), due.end()), model.due(now));
    ASSERT_EQ(due.empty(), expectsNothing);
  }
}

// In any sequence of events, an address has at most one slave connection, and a connection that
// sent data is never one.
TEST_F(ConnectionRolesTest, KeepsItsRulesUnderRandomEvents) {
  std::mt19937 random(5);
  std::map<ConnectionRoles::Id, std::string> open;
  std::set<ConnectionRoles::Id> spoke;
  ConnectionRoles::Time now = start_;
  ConnectionRoles::Id last = 0;
  for (int i = 0; i < 20000; ++i) {
    now += milliseconds(random() % 4000);
    const auto kind = random() % 4;
    if (kind == 0 || open.empty()) {
      open[++last] = std::string(1, static_cast<char>('a' + random() % 3));
      (void)roles_.opened(last, open[last], now);
    } else {
      const auto some = std::next(open.begin(), static_cast<long>(random() % open.size()));
      const auto slaves = roles_.slavesAt(some->second);
      if (kind == 1) {
        roles_.closed(some->first, now);
        spoke.erase(some->first);
        open.erase(some);
      } else if (kind == 2 && (slaves.empty() || slaves[0] != some->first)) {
        roles_.spoke(some->first);
        spoke.insert(some->first);
      } else {
        (void)roles_.due(now);
        ASSERT_TRUE(!roles_.nextDue() || *roles_.nextDue() > now);
      }
    }
    for (const char* address : {"a", "b", "c"}) {
      const auto slaves = roles_.slavesAt(address);
      ASSERT_LE(slaves.size(), 1U);
      ASSERT_TRUE(slaves.empty() || spoke.count(slaves[0]) == 0);
    }
  }
}

}  // namespace
}  // namespace runel
