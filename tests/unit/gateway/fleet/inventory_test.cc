// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/inventory.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "fakes/gateway/fake_router.h"
#include "unit/gateway/fleet/fleet_case.h"

namespace runelgw::test {
namespace {

using Names = std::vector<std::string>;

std::string replyRecord(const std::string& text, int status = 0) {
  return "SlaveTask 0 0 " + std::to_string(text.size()) + ":" + text + " " +
         (status == 0 ? "0 0 0 0 0" : "1 0 1 2 0");
}

std::string statText(std::uint64_t blockSize) {
  return "dev=1 ino=2 mode=040755 nlink=1 uid=0 gid=0 rdev=0 size=4096 blksize=" +
         std::to_string(blockSize) +
         " blocks=8 atime=1700000000.000000005 mtime=1700000001.123456789 "
         "ctime=1700000002.999999999\n";
}

class GatewayInventory : public FleetCase {
 protected:
  GatewayInventory() { start(); }

  void begin(InventoryRules rules = {}) {
    inventory = std::make_unique<Inventory>(*registry, router, rules, clock.clocks());
    inventory->tick();
  }
  void pass(std::int64_t milliseconds) {
    clock.pass(milliseconds);
    inventory->tick();
  }
  // The words of the oldest question.
  [[nodiscard]] std::string asked() const {
    if (router.sent.empty()) {
      return "nothing";
    }
    const std::string& bytes = router.sent.front().call.request.bytes();
    for (const char* task : {"devicetype", "/proc/sys/kernel/osrelease", "stat", "freeblocks"}) {
      if (bytes.find(task) != std::string::npos) {
        return task;
      }
    }
    return bytes;
  }
  void answer(const std::string& record) {
    router.answer({Outcome::answered, Reason::none, "", Payload(record)});
  }
  // Answers the rest of a round.
  void answerRound() {
    for (int count = 0; count < 4 && !router.sent.empty(); ++count) {
      const std::string question = asked();
      answer(replyRecord(question == "devicetype"   ? "server"
                         : question == "stat"       ? statText(4096)
                         : question == "freeblocks" ? "1000"
                                                    : "5.10.0\n"));
      if (question == "freeblocks") {
        return;
      }
    }
  }

  FakeRouter router;
  std::unique_ptr<Inventory> inventory;
};

TEST_F(GatewayInventory, AsksADeviceThatConnects) {
  begin();
  EXPECT_EQ("nothing", asked());
  connect("10.0.0.1", "gw-1");
  pass(100);
  EXPECT_EQ("/proc/sys/kernel/osrelease", asked());
  EXPECT_EQ(1u, router.sent.front().call.device);
  EXPECT_EQ("inventory", router.sent.front().call.label);
  EXPECT_FALSE(router.sent.front().call.repeat);
  EXPECT_EQ(clock.steady + std::chrono::seconds(30), router.sent.front().call.deadline);
  answer(replyRecord("5.10.0\n"));
  EXPECT_EQ("stat", asked());
  answer(replyRecord(statText(4096)));
  EXPECT_EQ("freeblocks", asked());
  answer(replyRecord("1000"));
  EXPECT_EQ("nothing", asked());
  EXPECT_EQ("5.10.0", device("gw-1").kernel);
  EXPECT_EQ(4096000u, device("gw-1").freeBytes);
  EXPECT_EQ(1u, inventory->state().rounds);
  EXPECT_EQ(0u, inventory->state().failed);
}

TEST_F(GatewayInventory, AsksDevicesThatAreOnlineAlready) {
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.2", "gw-2");
  lose("10.0.0.2");
  begin();
  EXPECT_EQ(1u, router.sent.size());
}

TEST_F(GatewayInventory, AsksAgainAfterTheInterval) {
  begin();
  connect("10.0.0.1", "gw-1");
  pass(100);
  answerRound();
  pass(900'000);  // the second round is anywhere in the interval
  EXPECT_EQ("devicetype", asked());
  answerRound();
  EXPECT_EQ("server", device("gw-1").deviceType);
  pass(899'000);
  EXPECT_EQ("nothing", asked());
  pass(1000);
  EXPECT_EQ("devicetype", asked());
}

TEST_F(GatewayInventory, WithoutAnIntervalItAsksOnce) {
  InventoryRules rules;
  rules.interval = runel::Milliseconds(0);
  begin(rules);
  connect("10.0.0.1", "gw-1");
  pass(100);
  answerRound();
  pass(kYear);
  EXPECT_EQ("nothing", asked());
}

TEST_F(GatewayInventory, AFleetThatConnectsAtOnceIsSpreadEvenly) {
  InventoryRules rules;
  rules.atOnce = 100000;
  rules.startsPerSecond = 100000;
  begin(rules);
  for (int number = 0; number < 900; ++number) {
    connect("10.0." + std::to_string(number / 250) + "." + std::to_string(number % 250),
            "gw-" + std::to_string(number));
  }
  pass(100);
  EXPECT_EQ(900u, router.sent.size());
  while (!router.sent.empty()) {
    answerRound();
  }
  std::size_t most = 0;
  std::size_t all = 0;
  for (int minute = 0; minute < 15; ++minute) {
    pass(60'000);
    all += router.sent.size();
    most = std::max(most, router.sent.size());
    while (!router.sent.empty()) {
      answerRound();
    }
  }
  EXPECT_EQ(900u, all);
  EXPECT_LE(most, 65u);  // 60 a minute
}

TEST_F(GatewayInventory, FewDevicesAreAskedAtTheSameTime) {
  InventoryRules rules;
  rules.atOnce = 2;
  begin(rules);
  for (int number = 1; number <= 5; ++number) {
    connect("10.0.0." + std::to_string(number), "gw-" + std::to_string(number));
  }
  pass(100);
  EXPECT_EQ(2u, router.sent.size());
  EXPECT_EQ(2u, inventory->state().asking);
  EXPECT_EQ(5u, inventory->state().scheduled);
  answer(replyRecord("5.10.0"));  // one question each: the next one follows
  EXPECT_EQ(2u, router.sent.size());
  for (int count = 0; count < 15; ++count) {
    if (!router.sent.empty()) {
      answer(replyRecord("1"));
      EXPECT_LE(router.sent.size(), 2u);
    }
  }
  EXPECT_EQ(5u, inventory->state().rounds);
}

TEST_F(GatewayInventory, RoundsBeginAtALimitedPace) {
  InventoryRules rules;
  rules.atOnce = 1000;
  rules.startsPerSecond = 10;
  begin(rules);
  for (int number = 1; number <= 50; ++number) {
    connect("10.0.0." + std::to_string(number), "gw-" + std::to_string(number));
  }
  pass(0);
  EXPECT_EQ(10u, router.sent.size());
  pass(500);
  EXPECT_EQ(15u, router.sent.size());
  pass(100'000);
  EXPECT_EQ(25u, router.sent.size());  // no more than those of one second
}

TEST_F(GatewayInventory, ADeviceWithOtherWorkIsAskedLater) {
  begin();
  connect("10.0.0.1", "gw-1");
  router.queues[1].waiting = 1;
  pass(100);
  EXPECT_EQ("nothing", asked());
  EXPECT_EQ(1u, inventory->state().skipped);
  router.queues.clear();
  pass(29'000);
  EXPECT_EQ("nothing", asked());
  pass(1'000);
  EXPECT_EQ("/proc/sys/kernel/osrelease", asked());
  router.queues[1].waiting = 3;  // work that came meanwhile goes first
  answer(replyRecord("6.1.0"));
  EXPECT_EQ("nothing", asked());
  EXPECT_EQ("6.1.0", device("gw-1").kernel);
  EXPECT_EQ(2u, inventory->state().skipped);
}

TEST_F(GatewayInventory, AFailedQuestionChangesNothing) {
  begin();
  connect("10.0.0.1", "gw-1");
  registry->learn(1, {std::nullopt, "5.10.0", 7});
  const std::int64_t seen = device("gw-1").lastSeen;
  (void)takeEvents();
  pass(100);
  router.answer({Outcome::unknown, Reason::deadline, "no answer in time", {}});
  EXPECT_EQ("nothing", asked());
  EXPECT_EQ(1u, inventory->state().failed);
  EXPECT_EQ("online", stateOf("gw-1"));
  EXPECT_EQ("5.10.0", device("gw-1").kernel);
  EXPECT_EQ(7u, device("gw-1").freeBytes);
  EXPECT_EQ(seen, device("gw-1").lastSeen);
  EXPECT_EQ(0u, device("gw-1").losses);
  EXPECT_TRUE(takeEvents().empty());
  pass(900'000);
  EXPECT_EQ("devicetype", asked());  // and the next round comes
}

TEST_F(GatewayInventory, AnswersWithoutTheFactAreSkipped) {
  begin();
  connect("10.0.0.1", "gw-1");
  pass(100);
  answer(replyRecord("", 1));  // the file does not exist
  answer("no record at all");
  answer(replyRecord("12x"));
  EXPECT_EQ(3u, inventory->state().failed);
  EXPECT_EQ("", device("gw-1").kernel);
  EXPECT_FALSE(device("gw-1").freeBytes);
  pass(900'000);
  answer(replyRecord("server"));
  answer(replyRecord("5.10"));
  answer(replyRecord(statText(1ull << 40)));
  answer(replyRecord("9999999999999"));  // more than 64 bits
  EXPECT_FALSE(device("gw-1").freeBytes);
  EXPECT_EQ("5.10", device("gw-1").kernel);
}

TEST_F(GatewayInventory, ADeviceThatIsLostIsNoLongerAsked) {
  begin();
  connect("10.0.0.1", "gw-1");
  pass(100);
  const CallId call = router.sent.front().id;
  lose("10.0.0.1");
  EXPECT_EQ(std::vector<CallId>{call}, router.cancelled);
  EXPECT_EQ("nothing", asked());
  EXPECT_EQ(0u, inventory->state().scheduled);
  pass(kDay);
  EXPECT_EQ("nothing", asked());
  connect("10.0.0.1", "gw-1", 1001);
  pass(100);
  EXPECT_EQ("/proc/sys/kernel/osrelease", asked());
  ASSERT_TRUE(registry->deny(1));
  EXPECT_EQ("nothing", asked());
  ASSERT_TRUE(registry->approve(1));
  pass(100);
  EXPECT_EQ("/proc/sys/kernel/osrelease", asked());
}

TEST_F(GatewayInventory, ItsEndCancelsTheQuestions) {
  begin();
  connect("10.0.0.1", "gw-1");
  pass(100);
  inventory.reset();
  EXPECT_EQ(1u, router.cancelled.size());
  connect("10.0.0.2", "gw-2");  // no further question
  EXPECT_TRUE(router.sent.empty());
}

TEST_F(GatewayInventory, LeapsOfTheWallClockDoNotMatter) {
  begin();
  connect("10.0.0.1", "gw-1");
  pass(100);
  answerRound();
  clock.wall += kYear;
  pass(0);
  EXPECT_EQ("nothing", asked());
  clock.wall -= 2 * kYear;
  pass(900'000);
  EXPECT_EQ("devicetype", asked());
}

}  // namespace
}  // namespace runelgw::test
