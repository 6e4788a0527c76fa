// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <vector>

#include "unit/gateway/fleet/fleet_case.h"

namespace runelgw::test {
namespace {

using Names = std::vector<std::string>;
using std::chrono::milliseconds;

class GatewayRegistry : public FleetCase {
 protected:
  [[nodiscard]] std::string refusal(const runel::Result<Query>& query) const {
    return query ? "" : query.error().text();
  }
  [[nodiscard]] std::string refusal(const runel::Result<void>& result) const {
    return result ? "" : result.error().text();
  }
};

TEST_F(GatewayRegistry, WhatWasSavedIsThereAfterARestart) {
  start();
  connect("10.0.0.1", "gw-1", 1000, "gw-1.example");
  connect("10.0.0.2", "gw-2");
  registry->learn(1, {std::nullopt, "5.10.0\n", 1 << 20});
  ASSERT_TRUE(registry->setTag(1, "site", "berlin"));
  ASSERT_TRUE(registry->setRule({"r", "site=berlin", "country", "de"}));
  ASSERT_FALSE(registry->setGroup("z", "@b"));
  ASSERT_TRUE(registry->setGroup("b", "site=berlin"));
  ASSERT_TRUE(registry->setGroup("a", "@b"));  // is read before the group that it uses
  ASSERT_TRUE(registry->deny(2));
  ASSERT_TRUE(registry->setAccess({"hostid", "bad", false, 0, "note"}));
  lose("10.0.0.1");
  registry->learn(1, {});
  clock.pass(61000);
  registry->tick();
  const Snapshot snapshot = saved();
  const Device before = device("gw-1");

  clock.pass(kHour);
  start({}, snapshot);
  const Device& after = device("gw-1");
  EXPECT_EQ(before.id, after.id);
  EXPECT_EQ(before.hostid, after.hostid);
  EXPECT_EQ(before.address, after.address);
  EXPECT_EQ(before.certificate, after.certificate);
  EXPECT_EQ(before.pinCertificate, after.pinCertificate);
  EXPECT_EQ(before.firstSeen, after.firstSeen);
  EXPECT_EQ(before.lastSeen, after.lastSeen);
  EXPECT_EQ(before.lastLossReason, after.lastLossReason);
  EXPECT_EQ(before.losses, after.losses);
  EXPECT_EQ("5.10.0", after.kernel);
  EXPECT_EQ(1u << 20, after.freeBytes);
  EXPECT_EQ(before.tags, after.tags);
  EXPECT_EQ(Names{"country"}, after.ruleTags);
  EXPECT_EQ("denied", stateOf("gw-2"));
  EXPECT_EQ(Names{"gw-1"}, select("@a"));
  EXPECT_EQ("note", registry->accessEntries().at(0).note);
  EXPECT_EQ("r", registry->rules().all().at(0).name);
  connect("10.0.0.3", "gw-3");
  EXPECT_EQ(3u, device("gw-3").id);
}

TEST_F(GatewayRegistry, EventIdsIncreaseOverRestarts) {
  start();
  connect("10.0.0.1", "gw-1");
  const std::uint64_t last = registry->events().last();
  start({}, saved());
  connect("10.0.0.1", "gw-1");
  EXPECT_GT(registry->events().last(), last);
  EXPECT_TRUE(registry->events().after(last).tooOld);
}

TEST_F(GatewayRegistry, MoreEventsAreReservedInTime) {
  start();
  for (int count = 0; count < 600000; ++count) {
    registry->problem("");
  }
  registry->tick();
  store.run();
  const std::uint64_t last = registry->events().last();
  const Snapshot snapshot = saved();
  ASSERT_EQ(1u, snapshot.settings.size());
  EXPECT_GT(std::stoull(snapshot.settings[0].value), last + 500000);
}

TEST_F(GatewayRegistry, ManyChangesOfADeviceAreOneWrite) {
  start();
  connect("10.0.0.1", "gw-1");
  lose("10.0.0.1");
  connect("10.0.0.1", "gw-1", 1001);
  registry->tick();
  EXPECT_EQ(1, savesOf(1));
  registry->tick();
  EXPECT_EQ(1, savesOf(1));
}

TEST_F(GatewayRegistry, SignsOfLifeAloneAreSavedOnceAMinute) {
  start();
  connect("10.0.0.1", "gw-1");
  registry->tick();
  ASSERT_EQ(1, savesOf(1));
  for (int second = 0; second < 600; ++second) {
    clock.pass(1000);
    registry->heard(1);
    registry->tick();
  }
  EXPECT_LE(savesOf(1), 11);
  EXPECT_GE(savesOf(1), 10);
  EXPECT_EQ(clock.wall, device("gw-1").lastSeen);
}

TEST_F(GatewayRegistry, AFlushIsDoneAfterTheCommit) {
  start();
  connect("10.0.0.1", "gw-1");
  bool done = false;
  registry->flush([&](const std::optional<std::string>& error) { done = !error; });
  EXPECT_FALSE(done);
  store.run();
  EXPECT_TRUE(done);
  done = false;
  registry->flush(
      [&](const std::optional<std::string>& error) { done = !error; });  // nothing to do
  store.run();
  EXPECT_TRUE(done);
}

TEST_F(GatewayRegistry, WhatTheStoreRefusesIsWrittenAgain) {
  start();
  store.failure = "no space left";
  connect("10.0.0.1", "gw-1");
  ASSERT_TRUE(registry->setTag(1, "a", "b"));
  std::optional<std::string> told;
  registry->flush([&](std::optional<std::string> error) { told = std::move(error); });
  store.run();
  EXPECT_EQ("no space left", told);
  for (int count = 0; count < 20; ++count) {  // history is given up, tags and devices are not
    registry->tick();
    store.run();
  }
  EXPECT_EQ(1, std::count(events.begin(), events.end(),
                          "problem records of devices are not stored: no space left"));
  store.failure.clear();
  registry->tick();
  store.run();
  const Snapshot snapshot = saved();
  ASSERT_EQ(1u, snapshot.devices.size());
  ASSERT_EQ(1u, snapshot.tags.size());
  EXPECT_EQ("b", snapshot.tags[0].value);
}

TEST_F(GatewayRegistry, ChangesWaitWhileTheStoreHasMuchToDo) {
  start();
  registry->tick();
  store.stateNow.queued = 20000;
  connect("10.0.0.1", "gw-1");
  registry->tick();
  EXPECT_EQ(0, savesOf(1));
  lose("10.0.0.1");
  store.stateNow.queued = 19999;
  registry->tick();
  EXPECT_EQ(1, savesOf(1));
}

TEST_F(GatewayRegistry, WhatIsRefusedOfAForgottenDeviceIsDropped) {
  start();
  connect("10.0.0.1", "gw-1");
  lose("10.0.0.1");
  ASSERT_TRUE(registry->setTag(1, "a", "b"));
  store.failure = "locked";
  registry->flush({});
  ASSERT_TRUE(registry->forget(1));
  store.run();
  store.failure.clear();
  for (int count = 0; count < 3; ++count) {
    registry->tick();
    store.run();
  }
  EXPECT_TRUE(saved().devices.empty());  // and no tag without its device
}

TEST_F(GatewayRegistry, AStormOfClausesIsBounded) {
  start();
  connect("10.0.0.1", "gw-1");
  for (int count = 0; count < 40; ++count) {
    registry->clause(place("10.0.0.1", 2), 1, std::string(1 << 20, 'x'));
  }
  registry->tick();
  store.run();
  EXPECT_EQ(16u, store.clauses.size());
  EXPECT_EQ(1, std::count(events.begin(), events.end(),
                          "problem records of devices are not stored: there are more than the "
                          "database takes"));
  registry->clause(place("10.0.0.1", 2), 1, "y");
  registry->tick();
  EXPECT_EQ(17u, store.clauses.size());
}

TEST_F(GatewayRegistry, AfterAnUnexpectedEndNothingIsWrittenFor75Seconds) {
  start();
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.2", "gw-2", 1000, "gw-2.example");
  const Snapshot snapshot = saved();
  RegistrySettings settings;
  settings.cautionForUnknownPlaces = false;

  start(settings, snapshot, false);
  EXPECT_LE(milliseconds(75000), *registry->silenceFor(place("10.0.0.1", 7)));
  EXPECT_EQ(milliseconds(0), *registry->silenceFor(place("10.0.0.9")));
  EXPECT_EQ(milliseconds(0), *registry->silenceFor(place("10.0.0.9", 7, "gw-9.example")));
  EXPECT_LE(milliseconds(75000), *registry->silenceFor(place("10.0.0.9", 7, "gw-2.example")));
  clock.pass(70000);
  registry->tick();
  EXPECT_LE(milliseconds(5000), *registry->silenceFor(place("10.0.0.1", 7)));
  EXPECT_GE(milliseconds(5001), *registry->silenceFor(place("10.0.0.1", 7)));
  clock.wall += kYear;  // only the steady clock counts
  registry->tick();
  EXPECT_LE(milliseconds(5000), *registry->silenceFor(place("10.0.0.1", 7)));
  clock.pass(5000);
  EXPECT_EQ(milliseconds(0), *registry->silenceFor(place("10.0.0.1", 7)));
  registry->tick();
  EXPECT_EQ(milliseconds(0), *registry->silenceFor(place("10.0.0.1", 7)));
}

TEST_F(GatewayRegistry, AKnownDeviceMayComeFromAnUnknownPlace) {
  start();
  connect("10.0.0.1", "gw-1");
  start({}, saved(), false);
  EXPECT_LE(milliseconds(75000), *registry->silenceFor(place("10.0.0.9")));
}

TEST_F(GatewayRegistry, AfterAnOrderlyEndOrWithoutDevicesThereIsNoSilence) {
  start();
  connect("10.0.0.1", "gw-1");
  const Snapshot snapshot = saved();
  start({}, snapshot, true);
  EXPECT_EQ(milliseconds(0), *registry->silenceFor(place("10.0.0.1")));
  start({}, {}, false);
  EXPECT_EQ(milliseconds(0), *registry->silenceFor(place("10.0.0.1")));
}

TEST_F(GatewayRegistry, QueriesSelectByName) {
  start();
  for (const char* name : {"gw-10", "gw-2", "gw-1", "srv-1"}) {
    connect("10.0.0." + std::to_string(registry->size()), name);
  }
  EXPECT_EQ((Names{"gw-1", "gw-10", "gw-2"}), select("gw-*"));
  EXPECT_EQ((Names{"gw-1", "gw-2"}), select("gw-[1-5]"));
  EXPECT_EQ((Names{"gw-1", "gw-10", "gw-2", "srv-1"}), select("@all"));
  EXPECT_TRUE(registry->matches(device("gw-1"), *Query::parse("state:online")));
}

TEST_F(GatewayRegistry, AQueryForADeviceThatDoesNotExistIsAnError) {
  start();
  connect("10.0.0.1", "gw-1");
  ASSERT_TRUE(registry->setTag(1, "site", "berlin"));
  EXPECT_EQ("no device 'gw-11' (did you mean 'gw-1'?)", refusal(registry->query("gw-1,gw-11")));
  EXPECT_EQ("no device 'gw-2' (did you mean 'gw-1'?)", refusal(registry->query("@all !gw-2")));
  EXPECT_EQ("no device of 'gw-[2-5]'", refusal(registry->query("gw-[2-5]")).substr(0, 23));
  EXPECT_EQ("", refusal(registry->query("gw-[1-5]")));
  EXPECT_EQ("", refusal(registry->query("site")));
  EXPECT_NE("", refusal(registry->query("name:site")));
  EXPECT_EQ("", refusal(registry->query("x*")));
  EXPECT_EQ("no group 'g'", refusal(registry->query("@g")));
  EXPECT_EQ("at character 1: '(' without ')'", refusal(registry->query("(a")));
}

TEST_F(GatewayRegistry, ACallerLearnsNothingOfDevicesThatItMayNotKnow) {
  start();
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.2", "gw-2");
  ASSERT_TRUE(registry->setTag(2, "secret", "x"));
  const auto seen = [](const Device& device) { return device.name == "gw-1"; };
  EXPECT_EQ("", refusal(registry->query("gw-1", seen)));
  EXPECT_EQ("no device 'gw-2' (did you mean 'gw-1'?)", refusal(registry->query("gw-2", seen)));
  EXPECT_EQ("no device 'gw-22'", refusal(registry->query("gw-22", seen)));
  EXPECT_EQ("no device 'secret'", refusal(registry->query("secret", seen)));
  EXPECT_EQ("no device of 'gw-[2-3]'", refusal(registry->query("gw-[2-3]", seen)).substr(0, 23));
}

TEST_F(GatewayRegistry, RulesSetAndRemoveTheirTagsAsDevicesChange) {
  start();
  connect("10.0.0.1", "gw-1");
  ASSERT_TRUE(registry->setRule({"small", "free<100M", "disk", "small"}));
  EXPECT_TRUE(device("gw-1").tags.empty());
  registry->learn(1, {std::nullopt, std::nullopt, 50 << 20});
  EXPECT_EQ("small", device("gw-1").tags.at("disk"));
  EXPECT_TRUE(device("gw-1").isRuleTag("disk"));
  EXPECT_EQ("a rule has set the tag 'disk'", refusal(registry->removeTag(1, "disk")));
  registry->learn(1, {std::nullopt, std::nullopt, 200 << 20});
  EXPECT_TRUE(device("gw-1").tags.empty());
  EXPECT_TRUE(saved().tags.empty());
  ASSERT_TRUE(registry->setRule({"small", "@all", "disk", "any"}));
  EXPECT_EQ("any", device("gw-1").tags.at("disk"));
  ASSERT_TRUE(registry->removeRule("small"));
  EXPECT_TRUE(device("gw-1").tags.empty());
  EXPECT_EQ("no rule 'small'", refusal(registry->removeRule("small")));
}

TEST_F(GatewayRegistry, ATagOfAPersonTakesTheRulesPlaceAndBack) {
  start();
  connect("10.0.0.1", "gw-1");
  ASSERT_TRUE(registry->setRule({"r", "@all", "ring", "1"}));
  ASSERT_TRUE(registry->setTag(1, "ring", "7"));
  EXPECT_EQ("7", device("gw-1").tags.at("ring"));
  EXPECT_FALSE(device("gw-1").isRuleTag("ring"));
  EXPECT_EQ("", saved().tags.at(0).rule);
  ASSERT_TRUE(registry->removeTag(1, "ring"));
  EXPECT_EQ("1", device("gw-1").tags.at("ring"));
  EXPECT_EQ("r", saved().tags.at(0).rule);
  EXPECT_NE("", refusal(registry->removeTag(1, "x")));
  EXPECT_NE("", refusal(registry->setTag(1, "a b", "x")));
  EXPECT_NE("", refusal(registry->setTag(9, "a", "x")));
  for (int count = 0; count < 63; ++count) {
    ASSERT_TRUE(registry->setTag(1, "t" + std::to_string(count), ""));
  }
  EXPECT_EQ("it has 64 tags already", refusal(registry->setTag(1, "t", "")));
}

TEST_F(GatewayRegistry, RulesThatDependOnTimeAreEvaluatedAgain) {
  start();
  for (int number = 0; number < 300; ++number) {
    connect("10.0.1." + std::to_string(number), "gw-" + std::to_string(number));
    lose("10.0.1." + std::to_string(number));
  }
  ASSERT_TRUE(registry->setGroup("asleep", "seen>7d"));
  ASSERT_TRUE(registry->setRule({"r", "@asleep", "asleep", "yes"}));
  EXPECT_EQ("the rule 'r' uses it", refusal(registry->removeGroup("asleep")));
  clock.pass(8 * kDay);
  for (int second = 0; second < 60; ++second) {
    clock.pass(1000);
    registry->tick();
  }
  EXPECT_EQ(300u, select("asleep=yes").size());
  connect("10.0.1.7", "gw-7");
  EXPECT_EQ(299u, select("asleep=yes").size());
}

TEST_F(GatewayRegistry, GroupsSelectForOthers) {
  start();
  connect("10.0.0.1", "gw-1");
  ASSERT_TRUE(registry->setGroup("g", "gw-*"));
  EXPECT_TRUE(registry->inGroup(device("gw-1"), "g"));
  EXPECT_FALSE(registry->inGroup(device("gw-1"), "h"));
  EXPECT_NE("", refusal(registry->setGroup("g", "@g")));
  ASSERT_TRUE(registry->removeGroup("g"));
  EXPECT_TRUE(saved().groups.empty());
}

TEST_F(GatewayRegistry, TheAgentIsKnownByItsBridges) {
  start();
  connect("10.0.0.1", "gw-1");
  registry->agentConnected(place("10.0.0.1", 2), 1);
  EXPECT_TRUE(device("gw-1").agent);
  registry->agentConnected(place("10.0.0.1", 3), 1);
  registry->agentLost(place("10.0.0.1", 2), 1);
  EXPECT_TRUE(device("gw-1").agent);
  registry->agentLost(place("10.0.0.1", 3), 0);  // the device is no longer known to the link
  EXPECT_FALSE(device("gw-1").agent);
  registry->agentConnected(place("10.0.0.1", 4), 1);
  lose("10.0.0.1");
  EXPECT_FALSE(device("gw-1").agent);
  connect("10.0.0.1", "gw-1", 1001);
  registry->agentConnected(place("10.0.0.1", 5), 1);
  registry->agentLost(place("10.0.0.1", 4), 1);  // of the connection before
  EXPECT_TRUE(device("gw-1").agent);
  registry->agentLost(place("10.0.0.1", 9), 1);  // unknown
  EXPECT_TRUE(device("gw-1").agent);
}

TEST_F(GatewayRegistry, ClausesGoToSubscribersAndToTheStore) {
  start();
  connect("10.0.0.1", "gw-1");
  registry->agentConnected(place("10.0.0.1", 2), 0);  // not known yet
  EXPECT_FALSE(device("gw-1").agent);
  (void)takeEvents();
  registry->clause(place("10.0.0.1", 2), 1, std::string("<a>\0</a>", 8));
  EXPECT_TRUE(device("gw-1").agent);
  EXPECT_EQ("clause gw-1 " + std::string("<a>\0</a>", 8), takeEvents().back());
  registry->clause(place("10.0.0.1", 2), 0, "<b/>");
  EXPECT_EQ("clause gw-1 <b/>", takeEvents().back());
  registry->clause(place("10.9.9.9", 2), 0, "<c/>");
  EXPECT_EQ("clause 10.9.9.9:2 <c/>", takeEvents().back());
  registry->tick();
  ASSERT_EQ(2u, store.clauses.size());
  EXPECT_EQ(std::string("<a>\0</a>", 8), store.clauses[0].text);
  EXPECT_EQ(1u, store.clauses[0].device);
  EXPECT_EQ(kStart, store.clauses[0].time);
}

TEST_F(GatewayRegistry, FactsOfDevicesAreMadeHarmless) {
  start();
  connect("10.0.0.1", "gw-1");
  (void)takeEvents();
  registry->learn(1, {"server\x1b[2J", "5\xff.10\nx", 1000});
  EXPECT_EQ("server?[2J", device("gw-1").deviceType);
  EXPECT_EQ("5?.10", device("gw-1").kernel);
  EXPECT_EQ((Names{"changed gw-1 type,kernel,free"}), takeEvents());
  registry->learn(1, {std::nullopt, std::string(500, 'k'), 1010});
  EXPECT_EQ(128u, device("gw-1").kernel.size());
  EXPECT_EQ((Names{"changed gw-1 kernel"}), takeEvents());  // the free space hardly changed
  EXPECT_EQ(1010u, device("gw-1").freeBytes);
  registry->learn(9, {});
  registry->heard(9);
}

TEST_F(GatewayRegistry, HistoryHasConnectsLossesAndDecisions) {
  start();
  connect("10.0.0.1", "gw-1");
  connect("10.0.0.2", "gw-1");
  lose("10.0.0.1");
  ASSERT_TRUE(registry->pin(1, "10.0.0.2", ""));
  registry->tick();
  Names history;
  for (const HistoryRecord& record : store.history) {
    EXPECT_EQ(1u, record.device);
    EXPECT_EQ(kStart, record.time);
    history.push_back(record.event + ": " + record.reason);
  }
  EXPECT_EQ((Names{"added: 10.0.0.1:1000", "connected: 10.0.0.1:1000",
                   "quarantined: 10.0.0.2:1000 does not match its pin",
                   "lost: closed by the device", "pinned: 10.0.0.2", "connected: 10.0.0.2:1000"}),
            history);
}

TEST_F(GatewayRegistry, ProblemsAndRefusalsAreEvents) {
  start();
  registry->problem("no descriptor is left");
  registry->refusedConnection(place("10.0.0.1"), "too many connections");
  EXPECT_EQ((Names{"problem no descriptor is left", "refused 10.0.0.1:1000: too many connections"}),
            takeEvents());
}

}  // namespace
}  // namespace runelgw::test
