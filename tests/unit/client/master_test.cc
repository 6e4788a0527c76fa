// SPDX-License-Identifier: Apache-2.0
// The master, over loopback.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <runel/async_master.h>
#include <runel/master.h>
#include <runel/request.h>

#include "base/unique_fd.h"
#include "client/master/slave_link.h"
#include "unit/client/scripted_device.h"

namespace runel {
namespace {

using Type = MasterEvent::Type;

class MasterTest : public ::testing::Test {
 protected:
  MasterTest() { options.setListen("127.0.0.1", 0); }

  void open() {
    master = std::make_unique<AsyncMaster>(loop, options, [this](const MasterEvent& event) {
      events.push_back(event);
      onEvent(event);
    });
    ASSERT_TRUE(master->open());
    port = master->port();
    ASSERT_NE(port, 0);
  }
  ScriptedDevice& dial(const std::string& hostid = "fake",
                       const std::string& source = "127.0.0.1") {
    return devices.emplace_back(port, hostid, source);
  }
  /// A device that has told its identity.
  ScriptedDevice& dialAndWait(const std::string& hostid = "fake",
                              const std::string& source = "127.0.0.1") {
    ScriptedDevice& device = dial(hostid, source);
    device.sayIdentity();
    const std::size_t before = count(Type::connected);
    runUntil([&] { return count(Type::connected) > before; });
    return device;
  }
  /// The bridge of a device's agent.
  ScriptedDevice& dialBridge(const std::string& greeting = "<hello/>") {
    ScriptedDevice& bridge = dial();
    bridge.answers = false;
    const std::size_t before = count(Type::clause);
    bridge.say(greeting);
    runUntil([&] { return count(Type::clause) > before; });
    return bridge;
  }
  // A generous limit against a hang.
  void runUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 12000 && !done(); ++i) {
      loop.turn(Milliseconds(5));
      for (ScriptedDevice& device : devices) {
        if (device.isOpen()) {
          device.serve();
        }
      }
    }
    ASSERT_TRUE(done());
  }
  std::size_t count(Type type) const {
    std::size_t found = 0;
    for (const MasterEvent& event : events) {
      found += event.type() == type ? 1 : 0;
    }
    return found;
  }
  /// The first event of this type.
  MasterEvent told(Type type) {
    runUntil([&] { return count(type) > 0; });
    return *std::find_if(events.begin(), events.end(),
                         [&](const MasterEvent& event) { return event.type() == type; });
  }
  Reply ask(const std::string& name, const Request& request) {
    std::optional<Reply> reply;
    master->ask(name, request, [&](Reply got) { reply = std::move(got); });
    EXPECT_FALSE(reply) << "never within the call";
    runUntil([&] { return reply.has_value(); });
    return reply.value_or(Reply());
  }
  std::unique_ptr<MasterUser> attach(const std::string& name = "fake") {
    auto user = master->attach(name, {[&](const Error& error) { lost.push_back(error.text()); },
                                      [&](bool on) { busy.push_back(on); }});
    EXPECT_TRUE(user.ok());
    return user ? *std::move(user) : nullptr;
  }

  Loop loop;
  MasterOptions options;
  std::unique_ptr<AsyncMaster> master;
  std::uint16_t port = 0;
  std::list<ScriptedDevice> devices;
  std::vector<MasterEvent> events;
  std::function<void(const MasterEvent&)> onEvent = [](const MasterEvent&) {};
  std::vector<std::string> lost;
  std::vector<bool> busy;
};

TEST_F(MasterTest, ReportsTheIdentityOfADevice) {
  open();
  const ScriptedDevice& device = dial("gw-3");
  const MasterEvent event = told(Type::connected);
  EXPECT_EQ(event.device() + " " + event.hostid() + " " + event.deviceType() + " " + event.host(),
            "gw-3 gw-3 server 127.0.0.1");
  EXPECT_EQ(event.port(), device.port());
  const std::vector<DeviceInfo> list = master->devices();
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].name(), "gw-3");
  EXPECT_EQ(list[0].connects(), 1U);
  EXPECT_EQ(list[0].firstSeen(), list[0].connectedSince());
  for (const char* name : {"gw-3", "127.0.0.1"}) {
    EXPECT_EQ(master->find(name).size(), 1U) << name;
  }
  EXPECT_TRUE(master->find("gw-4").empty());
}

TEST_F(MasterTest, InvalidHostidIsNotAName) {
  open();
  dial("a b");
  const MasterEvent event = told(Type::connected);
  EXPECT_EQ(event.hostid(), "");
  EXPECT_EQ(event.device(), "127.0.0.1");
}

TEST_F(MasterTest, TheTextOfAFailedTaskIsNoTypeOfADevice) {
  open();
  ScriptedDevice& device = dial();
  device.answers = false;
  device.say(frameOf(recordOf("fake")) + frameOf("SlaveTask 0 0 6:server 1 0 1 2 0"));
  EXPECT_EQ(told(Type::connected).deviceType(), "");
}

TEST_F(MasterTest, HoldsAConnectionFromAnAddressThatIsNotAllowed) {
  ASSERT_TRUE(options.allowAddresses("127.0.0.8/31,10.0.0.1"));
  open();
  ScriptedDevice& stranger = dial("fake", "127.0.0.10");
  dialAndWait("good", "127.0.0.9");
  const MasterEvent event = told(Type::refused);
  EXPECT_EQ(event.refusal(), MasterEvent::Refusal::address);
  EXPECT_EQ(event.text(), "address not allowed");
  EXPECT_EQ(event.host(), "127.0.0.10");
  EXPECT_EQ(stranger.came, "");
  EXPECT_FALSE(stranger.ended) << "it would connect again immediately";
}

TEST_F(MasterTest, RefusesAHostidThatIsNotAllowed) {
  ASSERT_TRUE(options.allowHostids("one,two"));
  open();
  ScriptedDevice& stranger = dial("three");
  const MasterEvent event = told(Type::refused);
  EXPECT_EQ(event.refusal(), MasterEvent::Refusal::hostid);
  EXPECT_EQ(event.text(), "host identifier not allowed");
  EXPECT_EQ(event.hostid(), "three");
  EXPECT_TRUE(master->devices().empty());
  EXPECT_EQ(ask("three", Request({"hostid"})).error().kind(), Kind::link);
  EXPECT_FALSE(stranger.ended);
}

// A device that connects again and again would fill the log.
TEST_F(MasterTest, ClosesRefusedConnectionsAfterAWhile) {
  ASSERT_TRUE(options.allowAddresses("127.0.0.9"));
  ASSERT_TRUE(options.allowHostids("good"));
  open();
  ScriptedDevice& far = dial("good", "127.0.0.10");
  ScriptedDevice& wrong = dial("bad", "127.0.0.9");
  runUntil([&] { return far.ended && wrong.ended; });
  EXPECT_EQ(count(Type::refused), 2U);
  ASSERT_EQ(count(Type::lost), 1U) << "only one was asked for its identity";
  EXPECT_EQ(told(Type::lost).hostid() + " " + told(Type::lost).text(), "bad refused");
  dial("good", "127.0.0.10");
  runUntil([&] { return count(Type::refused) == 3; });
}

TEST_F(MasterTest, LimitsTheConnectionsFromOneAddress) {
  open();
  dialAndWait();
  for (std::size_t further = 1; further < 16; ++further) {
    dial();
    runUntil([&] { return count(Type::additional) == further; });
  }
  EXPECT_EQ(count(Type::refused), 0U);
  dial();
  const MasterEvent event = told(Type::refused);
  EXPECT_EQ(event.refusal(), MasterEvent::Refusal::tooManyConnections);
  EXPECT_EQ(event.text(), "too many connections from this address");
  dialAndWait("other", "127.0.0.2");
}

TEST_F(MasterTest, OptionsAreCopied) {
  ASSERT_TRUE(options.allowHostids("one"));
  MasterOptions copy;
  copy = options;
  ASSERT_TRUE(options.allowHostids("two"));
  options = copy;
  open();
  dial("two");
  EXPECT_EQ(told(Type::refused).hostid(), "two");
}

TEST_F(MasterTest, InvalidListsAreRefused) {
  for (const char* list : {"", "1.2.3", "1.2.3.4/33", "1.2.3.4,"}) {
    EXPECT_FALSE(options.allowAddresses(list)) << list;
  }
  EXPECT_EQ(options.allowHostids("a b").error().kind(), Kind::local);
}

TEST_F(MasterTest, OpenFailsForAUsedPortAndForAName) {
  open();
  AsyncMaster second(loop, MasterOptions().setListen("127.0.0.1", port), nullptr);
  EXPECT_EQ(second.open().error().number(), EADDRINUSE);
  AsyncMaster named(loop, MasterOptions().setListen("localhost", 0), nullptr);
  EXPECT_EQ(named.open().error().kind(), Kind::local);
}

TEST_F(MasterTest, HasNoPortBeforeItIsOpen) {
  const AsyncMaster closed(loop, options, [](const MasterEvent&) {});
  EXPECT_EQ(closed.port(), 0);
}

TEST_F(MasterTest, WithoutDescriptorsConnectionsWait) {
  open();
  ScriptedDevice& device = dial();
  device.sayIdentity();
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit none = limit;
  none.rlim_cur = static_cast<rlim_t>(zell::UniqueFd(dup(STDIN_FILENO)).get());
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const std::string text = told(Type::problem).text();
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(text, "cannot accept connections: Too many open files");
  (void)told(Type::connected);
}

TEST_F(MasterTest, NothingIsWrittenToABridgeButTheGivenClauses) {
  open();
  dialAndWait("gw-3");
  ScriptedDevice& bridge = dialBridge("<hello>x</hello>\r\n");
  EXPECT_EQ(told(Type::additional).device(), "gw-3");
  EXPECT_EQ(told(Type::agentConnected).device(), "gw-3");
  EXPECT_EQ(told(Type::clause).text(), "<hello>x</hello>");
  EXPECT_EQ(bridge.came, "");
  ASSERT_TRUE(master->sendClause("gw-3", " <a>1</a>\n"));
  ASSERT_TRUE(master->sendClause("127.0.0.1", "<b/>"));
  runUntil([&] { return bridge.came.size() >= 16; });
  EXPECT_EQ(bridge.came, "<a>1</a>\r\n<b/>\r\n");
  const std::vector<DeviceInfo> list = master->devices();
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].additional(), 1U);
  EXPECT_EQ(list[0].agents(), 1U);
  EXPECT_EQ(list[0].clauses(), 1U);
}

TEST_F(MasterTest, ClausesWaitForTheIdentityOfTheirDevice) {
  open();
  ScriptedDevice& device = dial("gw-3");
  device.answers = false;
  ScriptedDevice& bridge = dial();
  bridge.answers = false;
  bridge.say("<a/><b/>");
  told(Type::additional);
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));
  }
  device.answers = true;
  runUntil([&] { return count(Type::clause) == 2; });
  std::vector<Type> order;
  for (const MasterEvent& event : events) {
    order.push_back(event.type());
    EXPECT_EQ(event.hostid() + event.device(), event.type() == Type::additional ? "" : "gw-3gw-3");
  }
  EXPECT_EQ(order, (std::vector<Type>{Type::additional, Type::connected, Type::agentConnected,
                                      Type::clause, Type::clause}));
  EXPECT_EQ(bridge.came, "");
}

TEST_F(MasterTest, ClausesOfADeviceThatIsLostWithoutItsIdentityAreReported) {
  open();
  ScriptedDevice& device = dial();
  device.answers = false;
  ScriptedDevice& bridge = dial();
  bridge.answers = false;
  bridge.say("<a/>");
  told(Type::additional);
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));
  }
  EXPECT_EQ(count(Type::clause), 0U);
  device.close();
  EXPECT_EQ(told(Type::clause).hostid(), "");
  EXPECT_EQ(count(Type::lost), 1U);
}

TEST_F(MasterTest, ClausesBeforeTheEndOfAnAgentAreReported) {
  open();
  ScriptedDevice& device = dial();
  device.answers = false;
  ScriptedDevice& bridge = dial();
  bridge.say("<a/><b/>");
  bridge.close();
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));
  }
  device.answers = true;
  EXPECT_TRUE(told(Type::additionalLost).fromAgent());
  EXPECT_EQ(count(Type::clause), 2U);
  EXPECT_EQ(told(Type::clause).hostid(), "fake");
}

TEST_F(MasterTest, AgentOfADeviceThatVanishedIsNotCounted) {
  open();
  dialAndWait("one");
  dialBridge().vanish();
  EXPECT_EQ(master->devices()[0].agents(), 1U);
  devices.front().vanish();
  dial("two");
  runUntil([&] { return count(Type::connected) == 2; });
  EXPECT_EQ(master->devices()[0].agents(), 0U);
  EXPECT_EQ(count(Type::additionalLost), 1U);
}

TEST_F(MasterTest, SendClauseFailsWhileNoBridgeIsKnown) {
  open();
  dialAndWait();
  ScriptedDevice& silent = dial();
  silent.answers = false;
  told(Type::additional);
  const Result<void> sent = master->sendClause("fake", "<a/>");
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().kind(), Kind::link);
  EXPECT_EQ(sent.error().outcome(), Outcome::notSent);
  EXPECT_EQ(silent.came, "");
}

TEST_F(MasterTest, SeveralBridgesAtOneAddressAreSelectedByPort) {
  open();
  dialAndWait();
  ScriptedDevice& one = dialBridge();
  ScriptedDevice& two = dialBridge();
  EXPECT_EQ(master->sendClause("fake", "<a/>").error().text(),
            "2 agents are at fake: select one by ADDRESS:PORT");
  ASSERT_TRUE(master->sendClause("127.0.0.1:" + std::to_string(two.port()), "<a/>"));
  runUntil([&] { return !two.came.empty(); });
  EXPECT_EQ(one.came, "");
}

TEST_F(MasterTest, MalformedClausesAreNotSent) {
  open();
  dialAndWait();
  ScriptedDevice& bridge = dialBridge();
  const std::string malformed[] = {"",         " ",     "text",     "<a>",
                                   "<a>x",     "<a/>x", "<a/><b/>", "<a>\x01</a>",
                                   "<a/>\x02", "<a",    "x<a/>",    "<a b>x</a>"};
  for (const std::string& text : malformed) {
    const Result<void> sent = master->sendClause("fake", text);
    ASSERT_FALSE(sent) << text;
    EXPECT_EQ(sent.error().kind(), Kind::local) << text;
  }
  ASSERT_TRUE(master->sendClause("fake", "<end/>"));
  runUntil([&] { return !bridge.came.empty(); });
  EXPECT_EQ(bridge.came, "<end/>\r\n");
}

TEST_F(MasterTest, ClausesStayInOrderWhenTheBridgeIsFull) {
  open();
  dialAndWait();
  ScriptedDevice& bridge = dialBridge();
  std::string expected;
  for (int i = 0; i < 60; ++i) {
    const std::string clause =
        "<n>" + std::string(100000, static_cast<char>('a' + i % 26)) + "</n>";
    ASSERT_TRUE(master->sendClause("fake", clause)) << i;
    expected += clause + "\r\n";
  }
  for (int i = 0; i < 20; ++i) {
    loop.turn(Milliseconds(0));  // the bridge is not read
  }
  runUntil([&] { return bridge.came.size() >= expected.size(); });
  EXPECT_TRUE(bridge.came == expected);
}

TEST_F(MasterTest, AnAgentThatDoesNotReadIsAnError) {
  open();
  dialAndWait();
  dialBridge();
  const std::string clause = "<n>" + std::string(1000000, 'x') + "</n>";
  int sent = 0;
  while (sent < 100 && master->sendClause("fake", clause)) {
    ++sent;
  }
  EXPECT_GE(sent, 8);
  EXPECT_LT(sent, 100);
}

TEST_F(MasterTest, TellsWhyABridgeEnded) {
  open();
  dialAndWait();
  dialBridge().resetConnection();
  EXPECT_EQ(told(Type::additionalLost).text(), "Connection reset by peer");
}

TEST_F(MasterTest, InvalidDataEndsABridge) {
  open();
  dialAndWait();
  dialBridge().say("text");
  const MasterEvent event = told(Type::additionalLost);
  EXPECT_TRUE(event.fromAgent());
  EXPECT_EQ(event.text(), "sent data that is not a clause");
  EXPECT_EQ(count(Type::lost), 0U);
}

TEST_F(MasterTest, AClauseWithoutAnEndEndsABridge) {
  open();
  dialAndWait();
  const ScriptedDevice& bridge = dialBridge();
  bridge.say("<a>");
  for (int piece = 0; piece < 64; ++piece) {
    EXPECT_EQ(count(Type::additionalLost), 0U);
    bridge.say(std::string(16384, 'x'));
    loop.turn(Milliseconds(5));
  }
  EXPECT_EQ(told(Type::additionalLost).text(), "sent a clause that exceeds 1 MiB");
}

TEST_F(MasterTest, PassesTheReplyOfATask) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.special = recordOf("content");
  const Reply reply = ask("fake", Request({"read", "/etc/hosts"}));
  EXPECT_TRUE(reply.ok());
  EXPECT_EQ(reply.output(), "content");
  EXPECT_EQ(device.last, Request({"read", "/etc/hosts"}).encode());
  EXPECT_EQ(master->devices()[0].requests(), 1U);
}

TEST_F(MasterTest, UnknownDeviceFailsARequest) {
  open();
  const Reply reply = ask("nothing", Request({"hostid"}));
  EXPECT_FALSE(reply.answered());
  EXPECT_EQ(reply.error().text(), "no device nothing is connected to the master");
  EXPECT_EQ(reply.error().outcome(), Outcome::notSent);
}

TEST_F(MasterTest, ALossFailsRequestsWithTheirOutcome) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  std::vector<Reply> replies;
  const auto keep = [&](Reply reply) { replies.push_back(std::move(reply)); };
  master->ask("fake", Request({"hostid"}), keep);
  master->ask("fake", Request({"write", "/a"}, std::string(32000000, 'x')), keep);
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));  // sends all of the first and a part of the second
  }
  device.close();
  EXPECT_EQ(told(Type::lost).device(), "fake");
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  EXPECT_EQ(replies[1].error().outcome(), Outcome::notSent);
  EXPECT_TRUE(master->devices().empty());
}

TEST_F(MasterTest, CountsAcrossConnections) {
  open();
  ScriptedDevice& first = dialAndWait();
  ask("fake", Request({"fileexists", "/"}));
  const DeviceInfo before = master->devices()[0];
  first.close();
  told(Type::lost);
  dialAndWait();
  const DeviceInfo device = master->devices()[0];
  EXPECT_GT(device.bytesToDevice(), before.bytesToDevice());
  EXPECT_GT(device.bytesFromDevice(), before.bytesFromDevice());
  EXPECT_EQ(device.connects(), 2U);
  EXPECT_EQ(device.losses(), 1U);
  EXPECT_EQ(device.requests(), 1U);
  EXPECT_EQ(device.lastLossReason(), "the device closed the connection");
}

TEST_F(MasterTest, DetectsAHalfOpenConnection) {
  open();
  dialAndWait("one").vanish();
  ScriptedDevice& again = dial("two");
  EXPECT_EQ(told(Type::lost).device(), "one");
  EXPECT_EQ(again.came, "");
}

TEST_F(MasterTest, LosesADeviceThatDoesNotAnswerACheck) {
  options.setTimeout(Milliseconds(200));
  open();
  dialAndWait().answers = false;
  dial().answers = false;  // a further connection makes the master check the first
  EXPECT_EQ(told(Type::lost).text(), "no answer to the liveness check");
}

// Its kernel acknowledges the check: the connection is not half-open.
TEST_F(MasterTest, ADeviceThatOnlyAcknowledgesTheCheckHasItsTimeout) {
  options.setTimeout(Milliseconds(6000));
  open();
  dialAndWait().answers = false;
  dial().answers = false;
  EXPECT_EQ(told(Type::lost).text(), "no answer to the liveness check");
}

TEST_F(MasterTest, LosesADeviceThatAnswersACheckWithGarbage) {
  open();
  dialAndWait().special = "text";
  dial().answers = false;
  EXPECT_EQ(told(Type::lost).text(), "malformed answer: not a task record");
}

TEST_F(MasterTest, LosesADeviceThatAnswersWithoutARequest) {
  open();
  dialAndWait().say(frameOf(recordOf("unasked")));
  EXPECT_EQ(told(Type::lost).text(), "answer without a request");
}

TEST_F(MasterTest, SilenceEndsARequestAndChecksTheDevice) {
  options.setTimeout(Milliseconds(200));
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  const Reply reply = ask("fake", Request({"hostid"}));
  EXPECT_EQ(reply.error().kind(), Kind::timeout);
  EXPECT_EQ(reply.error().outcome(), Outcome::unknown);
  runUntil([&] { return device.came.find("fileexists") != std::string::npos; });
}

TEST_F(MasterTest, LateAnswerDoesNotReachTheNextRequest) {
  options.setTimeout(Milliseconds(2000));
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  EXPECT_FALSE(ask("fake", Request({"read", "/1"})).answered());
  runUntil([&] { return device.came.find("fileexists") != std::string::npos; });
  ASSERT_TRUE(device.takeRequest());
  device.say(frameOf(recordOf("late")));
  device.answers = true;
  device.special = recordOf("right");
  EXPECT_EQ(ask("fake", Request({"read", "/2"})).output(), "right");
}

TEST(IsAnsweredTest, ATaskThatOnlyMentionsRestartIsAnswered) {
  EXPECT_FALSE(isAnswered(Request({"restart"}).encode()));
  EXPECT_TRUE(isAnswered(Request({"fileexists", " 7:restart "}).encode()));
  EXPECT_TRUE(isAnswered("SlaveTask 0 0 11: 7:restart  0 0 0 0 0")) << "no task";
  EXPECT_TRUE(isAnswered("SlaveTask 1 7:restart ")) << "no complete record";
  EXPECT_FALSE(isAnswered("text"));
}

// The deadline of a loop without anything else is that of the link.
TEST(SlaveLinkTest, WatchesItsFirstCheckWhileItExists) {
  Loop loop;
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const zell::UniqueFd far(ends[1]);
  {
    SlaveLink link(loop, zell::UniqueFd(ends[0]), Milliseconds(60000), {});
    EXPECT_FALSE(loop.deadline());
    link.check();
    EXPECT_TRUE(loop.deadline());
  }
  EXPECT_FALSE(loop.deadline());
}

TEST_F(MasterTest, RestartIsCompleteWhenSent) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  EXPECT_TRUE(ask("fake", Request({"restart"})).ok());
  runUntil([&] { return device.came.find("restart") != std::string::npos; });
}

TEST_F(MasterTest, AnswerAboveItsLimitFailsTheRequest) {
  open();
  dialAndWait().special = recordOf(std::string(1000, 'x'));
  Request request({"read", "/"});
  request.setReplyLimit(500);
  EXPECT_EQ(ask("fake", request).error().text(), "answer exceeds the size limit");
}

TEST_F(MasterTest, NameOfTwoDevicesSelectsNeither) {
  open();
  dialAndWait("same", "127.0.0.2");
  dialAndWait("same", "127.0.0.3").special = recordOf("second");
  EXPECT_EQ(master->devices()[0].name(), "same");
  EXPECT_EQ(master->devices()[1].name(), "127.0.0.3");
  EXPECT_EQ(master->find("same").size(), 2U);
  const std::string why = "2 devices are named same: select one by ADDRESS:PORT";
  EXPECT_EQ(ask("same", Request({"read", "/"})).error().text(), why);
  const auto user = master->attach("same", {});
  ASSERT_FALSE(user);
  EXPECT_EQ(user.error().text(), why);
  EXPECT_EQ(ask("127.0.0.3", Request({"read", "/"})).output(), "second");
}

TEST_F(MasterTest, NamesFollowALossAndAReturn) {
  open();
  ScriptedDevice& first = dialAndWait("same", "127.0.0.2");
  ScriptedDevice& second = dialAndWait("same", "127.0.0.3");
  const std::string place = "127.0.0.3:" + std::to_string(second.port());
  EXPECT_EQ(master->find(place).size(), 1U);
  first.close();
  runUntil([&] { return count(Type::lost) == 1; });
  EXPECT_EQ(master->find("same")[0].host(), "127.0.0.3");
  EXPECT_TRUE(master->find("127.0.0.2").empty());
  EXPECT_EQ(ask("same", Request({"read", "/"})).output(), "done");
  dialAndWait("other", "127.0.0.2");
  EXPECT_EQ(master->find("same").size(), 1U);
  EXPECT_EQ(master->find("127.0.0.2")[0].name(), "other");
  second.close();
  runUntil([&] { return count(Type::lost) == 2; });
  EXPECT_TRUE(master->find("same").empty());
  EXPECT_TRUE(master->find(place).empty());
  dialAndWait("same", "127.0.0.3");
  EXPECT_EQ(master->find("127.0.0.3")[0].name(), "same") << "the name is free again";
}

TEST_F(MasterTest, AHostidThatIsAnAddressNamesTheDeviceOnce) {
  open();
  dialAndWait("127.0.0.2", "127.0.0.2");
  EXPECT_EQ(master->find("127.0.0.2").size(), 1U);
  EXPECT_TRUE(ask("127.0.0.2", Request({"read", "/"})).ok());
  devices.front().close();
  told(Type::lost);
  EXPECT_TRUE(master->find("127.0.0.2").empty());
}

TEST_F(MasterTest, OneSlowUserOfSeveralPausesTheDevice) {
  open();
  dialAndWait();
  const auto one = attach();
  auto two = attach();
  int answers = 0;
  one->setReading(false);
  one->setReading(false);
  two->setReading(false);
  one->setReading(true);
  one->forward(Request({"hostid"}).encode(), [&](const std::string&) { ++answers; });
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));
    devices.front().serve();
  }
  EXPECT_EQ(answers, 0);
  two.reset();
  runUntil([&] { return answers == 1; });
}

TEST_F(MasterTest, SilentConnectionsAtASharedAddressAreDevices) {
  options.setShared(Milliseconds(50));
  open();
  for (const char* hostid : {"one", "", ""}) {
    const std::size_t before = count(Type::connected);
    dial(hostid);
    runUntil([&] { return count(Type::connected) > before; });
  }
  EXPECT_EQ(events.back().device(), "127.0.0.1:" + std::to_string(devices.back().port()));
  EXPECT_EQ(master->find("127.0.0.1").size(), 3U);
}

TEST_F(MasterTest, EachSilentConnectionAtASharedAddressHasItsOwnTime) {
  options.setShared(Milliseconds(200));
  open();
  dialAndWait("one");
  dial("two");
  told(Type::additional);
  const Clock::time_point later = Clock::now() + Milliseconds(100);
  runUntil([&] { return Clock::now() > later; });
  dial("three");
  runUntil([&] { return count(Type::connected) == 3; });
  EXPECT_EQ(master->find("three").size(), 1U);
}

// Many devices at one address connect within a moment.
TEST_F(MasterTest, FurtherConnectionsFromASharedAddressCauseOneCheck) {
  options.setShared(Milliseconds(60000));
  open();
  const ScriptedDevice& device = dialAndWait();
  dial().answers = false;
  dial().answers = false;
  runUntil([&] { return device.came.find("fileexists") != std::string::npos; });
  EXPECT_EQ(count(Type::additional), 2U);
  EXPECT_EQ(device.came.find("fileexists"), device.came.rfind("fileexists"));
}

TEST_F(MasterTest, ForwardsByteForByte) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.special = std::string("any\0\x01\x02 bytes", 13);
  const auto user = attach();
  std::vector<std::string> answers;
  const auto keep = [&](std::string payload) { answers.push_back(std::move(payload)); };
  const std::string odd = Request({"write", "/a"}, std::string("\0\x01\x02\xff", 4)).encode();
  user->forward("not a record", keep);
  user->forward(odd, keep);
  runUntil([&] { return answers.size() == 1; });
  EXPECT_EQ(answers[0], device.special);
  EXPECT_EQ(device.last, odd);
  EXPECT_NE(device.came.find(frameOf("not a record")), std::string::npos);
  EXPECT_EQ(master->devices()[0].users(), 1U);
}

TEST_F(MasterTest, SlowUserPausesTheDevice) {
  open();
  dialAndWait();
  const auto user = attach();
  user->setReading(false);
  std::optional<std::string> answer;
  user->forward(Request({"hostid"}).encode(), [&](std::string payload) { answer = payload; });
  ScriptedDevice& device = devices.front();
  const std::size_t before = device.came.size();
  runUntil([&] { return device.came.size() > before; });
  for (int i = 0; i < 20; ++i) {
    loop.turn(Milliseconds(1));
  }
  EXPECT_FALSE(answer);
  user->setReading(true);
  runUntil([&] { return answer.has_value(); });
}

TEST_F(MasterTest, TellsUsersThatTheDeviceIsBusy) {
  open();
  dialAndWait();
  const auto user = attach();
  EXPECT_FALSE(user->busy());
  user->forward(Request({"write", "/a"}, std::string(20000000, 'x')).encode(),
                [](const std::string&) {});
  EXPECT_TRUE(user->busy());
  runUntil([&] { return busy.size() == 2; });
  EXPECT_EQ(busy, (std::vector<bool>{true, false}));
  EXPECT_FALSE(user->busy());
}

TEST_F(MasterTest, UserIsToldOfALoss) {
  open();
  ScriptedDevice& device = dialAndWait();
  const auto user = attach();
  device.close();
  runUntil([&] { return !lost.empty(); });
  EXPECT_EQ(lost, (std::vector<std::string>{"the device closed the connection"}));
  user->forward("late", [](const std::string&) { FAIL(); });
  user->setReading(false);
}

TEST_F(MasterTest, UserThatLeavesBeforeItsAnswerMakesTheMasterCheck) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  auto user = attach();
  user->forward(Request({"hostid"}).encode(), [](const std::string&) { FAIL(); });
  user.reset();
  runUntil([&] { return device.came.find("fileexists") != std::string::npos; });
  device.answers = true;
  EXPECT_TRUE(ask("fake", Request({"read", "/"})).ok());
  EXPECT_EQ(master->devices()[0].users(), 0U);
}

TEST_F(MasterTest, UserMayOutliveTheMaster) {
  open();
  dialAndWait();
  const auto user = attach();
  user->forward(Request({"hostid"}).encode(), [](const std::string&) { FAIL(); });
  master.reset();
  loop.step();
  user->setReading(false);
  user->forward("late", [](const std::string&) { FAIL(); });
  EXPECT_TRUE(lost.empty());
}

TEST_F(MasterTest, TellsWhenARequestIsSentAndItsAnswer) {
  open();
  ScriptedDevice& device = dialAndWait();
  const auto user = attach();
  std::vector<std::string> told;
  const auto request = [&](const std::string& name) {
    UserRequest made(Request({name}).encode());
    made.onSent([&told, name] { told.push_back("sent " + name); })
        .onAnswer(
            [&told, name](const std::string& payload) { told.push_back(name + " " + payload); })
        .onFailed([&told, name](const Error&) { told.push_back("failed " + name); });
    return made;
  };
  EXPECT_EQ(user->send(request("hostid")), 1U);
  EXPECT_EQ(user->send(request("read")), 2U);
  EXPECT_TRUE(told.empty()) << "never within the call";
  runUntil([&] { return told.size() == 4; });
  device.answers = false;
  EXPECT_EQ(user->send(request("restart")), 3U);
  runUntil([&] { return told.size() == 5; });
  EXPECT_EQ(told,
            (std::vector<std::string>{"sent hostid", "sent read", "hostid " + recordOf("fake"),
                                      "read " + device.special, "sent restart"}));
  EXPECT_FALSE(user->withdraw(1)) << "it has ended";
  EXPECT_EQ(master->devices()[0].requests(), 3U);
}

TEST_F(MasterTest, ALossTellsTheOutcomeOfEachRequestBeforeTheLoss) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  const auto user = attach();
  std::vector<std::string> told;
  const auto send = [&](UserRequest request, const std::string& name) {
    request.onSent([&told, name] { told.push_back("sent " + name); })
        .onFailed([&, name](const Error& error) {
          EXPECT_TRUE(lost.empty());
          told.push_back(name + " " + nameOf(error.outcome()));
        });
    EXPECT_NE(user->send(std::move(request)), 0U);
  };
  send(UserRequest(Request({"read", "/a"}).encode()), "first");
  runUntil([&] { return told.size() == 1; });
  // More than the system takes.
  send(UserRequest(100000000, [](std::uint64_t, std::size_t count,
                                 std::string& bytes) { bytes.assign(count, 'x'); }),
       "large");
  send(UserRequest(Request({"restart"}).encode()), "last");
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));
  }
  device.resetConnection();
  runUntil([&] { return !lost.empty(); });
  EXPECT_EQ(told, (std::vector<std::string>{"sent first", "first sent, outcome unknown",
                                            "large not sent", "last not sent"}));
  EXPECT_EQ(user->send(UserRequest("late")), 0U);
  EXPECT_FALSE(user->withdraw(1));
}

TEST_F(MasterTest, WithdrawnRequestsNeverRun) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  const auto user = attach();
  std::vector<std::string> told;
  const auto request = [&](UserRequest made, const std::string& name) {
    made.onSent([&told, name] { told.push_back("sent " + name); })
        .onAnswer([&told, name](const std::string&) { told.push_back(name); });
    return user->send(std::move(made));
  };
  const std::size_t before = device.came.size();
  const auto wholly = request(UserRequest(Request({"read", "/wholly"}).encode()), "wholly");
  runUntil([&] { return told.size() == 1; });
  EXPECT_FALSE(user->withdraw(wholly));
  const std::string content(20000000, '0');
  const std::string large = Request({"write", "/large"}, content).encode();
  const auto partly =
      request(UserRequest(large.size(),
                          [&](std::uint64_t offset, std::size_t count, std::string& bytes) {
                            bytes = large.substr(static_cast<std::size_t>(offset), count);
                          }),
              "partly");
  const auto dropped = request(UserRequest(Request({"read", "/dropped"}).encode()), "dropped");
  const auto restart = request(UserRequest(Request({"restart"}).encode()), "restart");
  request(UserRequest(Request({"read", "/kept"}).encode()), "kept");
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));
  }
  EXPECT_TRUE(user->withdraw(dropped));
  EXPECT_TRUE(user->withdraw(partly));
  EXPECT_TRUE(user->withdraw(restart));
  EXPECT_FALSE(user->withdraw(partly)) << "it is withdrawn already";
  device.answers = true;
  runUntil([&] { return told.size() == 4; });
  EXPECT_EQ(told, (std::vector<std::string>{"sent wholly", "wholly", "sent kept", "kept"}));
  const std::string spoiled = large.substr(0, large.size() - 1) + "!";
  EXPECT_EQ(device.came.substr(before), frameOf(Request({"read", "/wholly"}).encode()) +
                                            frameOf(spoiled) +
                                            frameOf(Request({"read", "/kept"}).encode()));
}

TEST_F(MasterTest, ARestartOfWhichAPartIsSentCanBeWithdrawn) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  const auto user = attach();
  // A valid restart: arguments that a task does not read are ignored.
  const auto restart =
      user->send(UserRequest(Request({"restart"}, std::string(20000000, 'x')).encode()));
  bool answered = false;
  UserRequest next(Request({"read", "/next"}).encode());
  next.onAnswer([&](const std::string&) { answered = true; });
  user->send(std::move(next));
  for (int i = 0; i < 50; ++i) {
    loop.turn(Milliseconds(1));
  }
  EXPECT_TRUE(user->withdraw(restart));
  device.answers = true;  // also to the spoiled request: it is not a record
  runUntil([&] { return answered; });
  EXPECT_NE(device.came.find("0 0 0 0 !"), std::string::npos);
  EXPECT_EQ(count(Type::lost), 0U);
}

TEST_F(MasterTest, LongAnswersGoToASink) {
  open();
  ScriptedDevice& device = dialAndWait();
  device.special = recordOf(std::string(400000, 'y'));
  const auto user = attach();
  std::vector<std::string> answers;
  std::vector<std::size_t> lengths;
  std::string taken;
  const auto send = [&](const std::string& name) {
    UserRequest request(Request({name}).encode());
    request.onAnswer([&](std::string payload) { answers.push_back(std::move(payload)); })
        .setLongAnswers(1000, [&](std::size_t length) {
          lengths.push_back(length);
          return [&](std::string_view part) { taken += part; };
        });
    return user->send(std::move(request));
  };
  send("read");
  send("hostid");
  user->forward(Request({"read"}).encode(),
                [&](std::string payload) { answers.push_back(std::move(payload)); });
  runUntil([&] { return answers.size() == 3; });
  EXPECT_TRUE(answers == (std::vector<std::string>{"", recordOf("fake"), device.special}));
  EXPECT_EQ(lengths, std::vector<std::size_t>{device.special.size()});
  EXPECT_TRUE(taken == device.special);
  EXPECT_GT(master->devices()[0].bytesFromDevice(), 800000U);
}

TEST_F(MasterTest, UnreadableContentEndsTheConnection) {
  open();
  dialAndWait();
  const auto user = attach();
  std::optional<Error> failed;
  UserRequest request(1000000, [](std::uint64_t offset, std::size_t count, std::string& bytes) {
    bytes.assign(offset == 0 ? count : 0, 'x');
  });
  request.onFailed([&](const Error& error) { failed = error; });
  user->send(std::move(request));
  runUntil([&] { return failed.has_value(); });
  EXPECT_EQ(failed->outcome(), Outcome::notSent);
  EXPECT_EQ(told(Type::lost).text(), "cannot read the content of a request");
}

// The policy of a master that does not know whether its devices still have an earlier connection.
class PolicyTest : public MasterTest {
 protected:
  void silentFor(std::optional<Milliseconds> time) {
    options.setPolicy(
        [this, time](const std::string& host, std::uint16_t from, const std::string& certificate) {
          asked.push_back(host + ":" + std::to_string(from) + " " + certificate);
          return time;
        });
  }
  void turns(int count) {
    for (int i = 0; i < count; ++i) {
      loop.turn(Milliseconds(2));
      for (ScriptedDevice& device : devices) {
        if (device.isOpen()) {
          device.serve();
        }
      }
    }
  }

  std::vector<std::string> asked;
};

TEST_F(PolicyTest, NothingIsWrittenBeforeTheSilenceIsOver) {
  silentFor(Milliseconds(300));
  open();
  ScriptedDevice& device = dial("gw-3");
  const auto start = Clock::now();
  runUntil([&] { return !device.came.empty() || count(Type::connected) > 0; });
  EXPECT_GE(Clock::now() - start, Milliseconds(290));
  EXPECT_EQ(told(Type::connected).hostid(), "gw-3");
  EXPECT_EQ(asked, std::vector<std::string>{"127.0.0.1:" + std::to_string(device.port()) + " "});
}

TEST_F(PolicyTest, AConnectionThatSpeaksInItsSilenceIsABridgeForEver) {
  silentFor(Milliseconds(200));
  open();
  ScriptedDevice& bridge = dial();
  bridge.say("<hello/>");
  ScriptedDevice& surplus = dial();
  runUntil([&] { return count(Type::clause) == 1 && count(Type::additional) == 2; });
  turns(200);
  EXPECT_EQ(bridge.came, "");
  EXPECT_EQ(surplus.came, "") << "the device still has its slave connection";
  EXPECT_FALSE(bridge.ended || surplus.ended);
  EXPECT_EQ(count(Type::connected), 0U);
  bridge.close();
  runUntil([&] { return count(Type::additionalLost) == 1; });
  dialAndWait("fake");
}

TEST_F(PolicyTest, AConnectionThatIsNotToBeUsedStaysSilent) {
  silentFor(std::nullopt);
  open();
  ScriptedDevice& device = dial();
  EXPECT_EQ(told(Type::refused).refusal(), MasterEvent::Refusal::policy);
  EXPECT_EQ(master->silent(), 1U);
  ScriptedDevice& bridge = dial();
  bridge.say("<hello/>");
  runUntil([&] { return count(Type::clause) == 1; });
  turns(20);
  EXPECT_EQ(device.came + bridge.came, "");
  EXPECT_EQ(asked.size(), 1U) << "a bridge is not asked about";
  device.close();
  runUntil([&] { return count(Type::lost) == 1; });
  EXPECT_EQ(master->silent(), 0U);
}

TEST_F(PolicyTest, WithoutAWaitTheDeviceIsUsedAtOnce) {
  silentFor(Milliseconds(0));
  open();
  dialAndWait();
  EXPECT_EQ(asked.size(), 1U);
}

TEST_F(MasterTest, IdentifiesDevicesAtAPaceInTheirOrder) {
  options.setIdentifyRate(20);
  open();
  for (int i = 1; i <= 6; ++i) {
    dial("d" + std::to_string(i), "127.0.0." + std::to_string(i));
  }
  const auto start = Clock::now();
  std::size_t most = 0;
  runUntil([&] {
    most = std::max(most, master->unidentified());
    return count(Type::connected) == 6;
  });
  EXPECT_GE(Clock::now() - start, Milliseconds(200)) << "five of them after the first";
  EXPECT_GE(most, 4U);
  EXPECT_EQ(master->unidentified(), 0U);
  std::string names;
  for (const DeviceInfo& device : master->devices()) {
    names += device.name();
  }
  EXPECT_EQ(names, "d1d2d3d4d5d6");
}

TEST_F(MasterTest, AConnectionThatSpeaksBeforeItsTurnIsABridge) {
  options.setIdentifyRate(1);
  open();
  dial("first", "127.0.0.2");
  ScriptedDevice& bridge = dial("bridge", "127.0.0.3");
  bridge.answers = false;
  bridge.say("<hello/>");
  dial("gone", "127.0.0.4").close();
  runUntil([&] { return count(Type::clause) == 1 && count(Type::lost) == 1; });
  EXPECT_EQ(master->unidentified(), 0U);
  EXPECT_EQ(bridge.came, "");
}

TEST_F(MasterTest, HoldsRefusedConnectionsForAsLongAsTheyLast) {
  options.setHeld(3);
  ASSERT_TRUE(options.allowAddresses("127.0.0.9"));
  ASSERT_TRUE(options.allowHostids("good"));
  open();
  ScriptedDevice& far = dial("good", "127.0.0.10");
  ScriptedDevice& wrong = dial("bad", "127.0.0.9");
  ScriptedDevice& again = dial("good", "127.0.0.10");
  runUntil([&] { return count(Type::refused) == 2 && master->silent() == 3; });
  ScriptedDevice& more = dial("good", "127.0.0.11");
  runUntil([&] { return more.ended; });
  const std::size_t before = wrong.came.size();
  const auto end = Clock::now() + Milliseconds(6000);  // longer than without the option
  runUntil([&] { return Clock::now() > end; });
  EXPECT_FALSE(far.ended || wrong.ended || again.ended);
  EXPECT_EQ(wrong.came.size(), before);
  EXPECT_EQ(far.came + again.came, "");
  far.close();
  again.close();
  wrong.close();
  runUntil([&] { return master->silent() == 0; });
  EXPECT_EQ(count(Type::refused), 2U);
}

TEST_F(MasterTest, ASilencedConnectionIsNotWrittenToAndStaysOpen) {
  options.setTimeout(Milliseconds(100));
  open();
  ScriptedDevice& device = dialAndWait();
  device.answers = false;
  const auto user = attach();
  std::vector<std::string> failures;
  const auto send = [&](std::size_t size) {
    UserRequest request(Request({"write", "/a"}, std::string(size, 'x')).encode());
    request.onFailed([&](const Error& error) { failures.push_back(nameOf(error.outcome())); });
    user->send(std::move(request));
  };
  send(10);
  runUntil([&] { return device.came.find("write") != std::string::npos; });
  send(20000000);
  for (int i = 0; i < 20; ++i) {
    loop.turn(Milliseconds(1));
  }
  const std::string place = "127.0.0.1:" + std::to_string(device.port());
  EXPECT_FALSE(master->silence("127.0.0.1:1"));
  EXPECT_FALSE(master->silence("fake"));
  EXPECT_TRUE(master->silence(place));
  EXPECT_FALSE(master->silence(place));
  runUntil([&] { return !lost.empty(); });
  EXPECT_EQ(failures, (std::vector<std::string>{"sent, outcome unknown", "not sent"}));
  EXPECT_TRUE(master->devices().empty());
  EXPECT_EQ(ask("fake", Request({"hostid"})).error().kind(), Kind::link);
  for (int i = 0; i < 20; ++i) {
    loop.turn(Milliseconds(1));
    device.serve();
  }
  const std::size_t before = device.came.size();
  device.answers = false;
  device.say(frameOf(recordOf("late")));
  ScriptedDevice& bridge = dial();  // makes a master check the device otherwise
  bridge.answers = false;
  runUntil([&] { return count(Type::additional) == 1; });
  const auto end = Clock::now() + Milliseconds(1500);
  runUntil([&] { return Clock::now() > end; });
  EXPECT_EQ(device.came.size(), before);
  EXPECT_EQ(bridge.came, "");
  EXPECT_FALSE(device.ended || bridge.ended);
  EXPECT_EQ(count(Type::lost), 0U);
  EXPECT_EQ(master->silent(), 1U);
  device.close();
  runUntil([&] { return count(Type::lost) == 1; });
  EXPECT_EQ(told(Type::lost).device(), "fake");
}

TEST_F(MasterTest, ASilencedConnectionCanBeUsedAgain) {
  open();
  const std::string place = "127.0.0.1:" + std::to_string(dialAndWait().port());
  EXPECT_FALSE(master->resume(place)) << "it is not silent";
  ASSERT_TRUE(master->silence(place));
  EXPECT_TRUE(master->devices().empty());
  EXPECT_TRUE(master->resume(place));
  EXPECT_FALSE(master->resume(place));
  EXPECT_EQ(master->silent(), 0U);
  EXPECT_EQ(ask("fake", Request({"read", "/"})).output(), "done");
  ASSERT_TRUE(master->silence(place));
  ASSERT_TRUE(master->resume(place));
  devices.front().close();
  runUntil([&] { return count(Type::lost) == 1; });
}

TEST_F(MasterTest, AConnectionThatWasSilencedAmidRequestsEndsInsteadOfBeingUsedAgain) {
  open();
  for (const bool answers : {false, true}) {
    ScriptedDevice& device = dialAndWait();
    device.answers = false;
    const std::string place = "127.0.0.1:" + std::to_string(device.port());
    if (answers) {
      device.say("\x01");
    } else {
      master->ask("fake", Request({"read", "/"}), [](const Reply&) {});
    }
    for (int i = 0; i < 20; ++i) {
      loop.turn(Milliseconds(1));
    }
    ASSERT_TRUE(master->silence(place));
    EXPECT_FALSE(master->resume(place));
    runUntil([&] { return device.ended; });
    EXPECT_EQ(master->silent(), 0U);
  }
  runUntil([&] { return count(Type::lost) == 2; });
}

TEST_F(MasterTest, AConnectionThatSpokeWhileItWasSilentIsNotUsedAgain) {
  open();
  ScriptedDevice& device = dialAndWait();
  const std::string place = "127.0.0.1:" + std::to_string(device.port());
  ASSERT_TRUE(master->silence(place));
  device.say("x");
  for (int i = 0; i < 20; ++i) {
    loop.turn(Milliseconds(1));
  }
  EXPECT_FALSE(master->resume(place));
  runUntil([&] { return device.ended; });
}

TEST_F(MasterTest, ListensOnSeveralAddresses) {
  options.addListen("127.0.0.5", 0);
  open();
  const std::vector<std::uint16_t> ports = master->ports();
  ASSERT_EQ(ports.size(), 2U);
  EXPECT_EQ(ports[0], master->port());
  EXPECT_NE(ports[1], 0);
  dialAndWait();
  MasterOptions taken;
  taken.setListen("127.0.0.1", 0).addListen("127.0.0.5", ports[1]);
  AsyncMaster second(loop, taken, nullptr);
  EXPECT_FALSE(second.open());
}

TEST_F(MasterTest, TellsTheBytesOfAHostidThatIsNotAName) {
  open();
  const std::string odd("a\0\n\xff b", 6);
  dial(odd);
  EXPECT_EQ(told(Type::connected).rawHostid(), odd);
  EXPECT_EQ(told(Type::connected).hostid(), "");
  dial(std::string(257, 'x'), "127.0.0.2");
  dial("gw-3", "127.0.0.3");
  runUntil([&] { return count(Type::connected) == 3; });
  for (const MasterEvent& event : events) {
    if (event.host() != "127.0.0.1") {
      EXPECT_EQ(event.rawHostid(), event.host() == "127.0.0.2" ? "" : "gw-3");
    }
  }
}

// The header that a proxy sends for the client at @p address.
std::string proxyHeader(const std::string& address, std::uint16_t port, const std::string& name,
                        char verification = 0) {
  const in_addr from = loopback(address, 0).sin_addr;
  const auto* source = reinterpret_cast<const char*>(&from);
  const auto number = [](std::size_t value) {
    return std::string{static_cast<char>(value >> 8), static_cast<char>(value & 0xff)};
  };
  const auto field = [&](char type, const std::string& value) {
    return type + number(value.size()) + value;
  };
  std::string rest =
      std::string(source, 4) + std::string("\x7f\0\0\1", 4) + number(port) + number(5112);
  if (!name.empty()) {
    rest += field(0x20, std::string("\3\0\0\0", 4) + verification + field(0x22, name));
  }
  return std::string("\r\n\r\n\0\r\nQUIT\n\x21\x11", 14) + number(rest.size()) + rest;
}

class ProxyTest : public MasterTest {
 protected:
  ProxyTest() { EXPECT_TRUE(options.trustProxies("127.0.0.100,127.0.0.101")); }

  ScriptedDevice& dialThrough(const std::string& header, const std::string& hostid = "fake") {
    ScriptedDevice& device = dial(hostid, "127.0.0.100");
    device.say(header);
    return device;
  }
};

TEST_F(ProxyTest, TheClientIsTheOneOfTheHeader) {
  open();
  dialThrough(proxyHeader("10.0.0.7", 4001, "gw-7"), "one");
  const MasterEvent event = told(Type::connected);
  EXPECT_EQ(event.host() + " " + event.certificate() + " " + event.taskPlace(),
            "10.0.0.7 gw-7 10.0.0.7:4001");
  EXPECT_EQ(event.port(), 4001);
  EXPECT_EQ(master->find("10.0.0.7:4001").size(), 1U);
  EXPECT_EQ(master->devices()[0].certificate(), "gw-7");
  EXPECT_EQ(ask("one", Request({"read", "/"})).output(), "done");
}

TEST_F(ProxyTest, VerifiedNamesTellDevicesApartAndOthersAddresses) {
  open();
  dialThrough(proxyHeader("10.0.0.7", 1, "one"), "one");
  dialThrough(proxyHeader("10.0.0.7", 2, "two"), "two");
  dialThrough(proxyHeader("10.0.0.7", 3, "three", 1), "three");
  runUntil([&] { return count(Type::connected) == 3; });
  dialThrough(proxyHeader("10.0.0.8", 4, "two")).say("<hello/>");
  devices.back().answers = false;
  EXPECT_EQ(told(Type::clause).device(), "two");
  EXPECT_EQ(told(Type::clause).taskPlace(), "10.0.0.7:2");
  dialThrough(proxyHeader("10.0.0.7", 5, ""));
  runUntil([&] { return count(Type::additional) == 2; });
  for (const MasterEvent& event : events) {
    EXPECT_EQ(event.certificate(), event.port() == 1 ? "one" : event.port() % 2 == 0 ? "two" : "");
  }
  EXPECT_TRUE(master->sendClause("two", "<x/>"));
}

TEST_F(ProxyTest, AnAddressIsNotTheNameOfACertificate) {
  open();
  dialThrough(proxyHeader("10.0.0.7", 1, ""), "one");
  dialThrough(proxyHeader("10.0.0.8", 2, "10.0.0.7"), "two");
  runUntil([&] { return count(Type::connected) == 2; });
  EXPECT_EQ(count(Type::additional), 0U);
}

TEST_F(ProxyTest, NothingIsWrittenToAConnectionWithoutAValidHeader) {
  options.setHeld(10);
  open();
  std::vector<ScriptedDevice*> bad;
  for (const char* text : {"\x01"
                           "5\x02hello",
                           "<hello/>", "\r\n\r\nx"}) {
    bad.push_back(&dialThrough(text));
  }
  runUntil([&] { return master->silent() == 3; });
  EXPECT_EQ(told(Type::refused).refusal(), MasterEvent::Refusal::proxyHeader);
  EXPECT_EQ(told(Type::refused).text(), "no header of a proxy");
  EXPECT_EQ(count(Type::refused), 1U) << "once for its address";
  for (const ScriptedDevice* device : bad) {
    EXPECT_EQ(device->came, "");
    EXPECT_FALSE(device->ended);
  }
}

TEST_F(ProxyTest, AHeaderThatDoesNotComeInTimeRefusesTheConnection) {
  options.setHeld(10);
  open();
  ScriptedDevice& slow = dialThrough("\r\n");
  EXPECT_EQ(told(Type::refused).text(), "no header of the proxy in time");
  EXPECT_FALSE(slow.ended);
}

TEST_F(ProxyTest, HealthChecksAreNoEvents) {
  options.setHeld(10);
  open();
  ScriptedDevice& check = dialThrough(std::string("\r\n\r\n\0\r\nQUIT\n\x20\0\0\0", 16));
  runUntil([&] { return master->silent() == 1; });
  check.close();
  runUntil([&] { return master->silent() == 0; });
  dial("x", "127.0.0.100").close();
  dialThrough(proxyHeader("10.0.0.7", 1, ""));
  (void)told(Type::connected);
  EXPECT_EQ(events.size(), 1U);
}

TEST_F(ProxyTest, OnlyAProxyMaySendAHeader) {
  open();
  ScriptedDevice& device = dial("liar", "127.0.0.99");
  device.answers = false;
  device.say(proxyHeader("10.0.0.7", 1, "gw-7"));
  const MasterEvent event = told(Type::lost);
  EXPECT_EQ(event.host() + event.certificate(), "127.0.0.99");
}

TEST_F(ProxyTest, TheAddressOfTheClientMustBeAllowedAndUnique) {
  options.setHeld(10);
  ASSERT_TRUE(options.allowAddresses("10.0.0.0/24"));
  open();
  dialThrough(proxyHeader("10.0.0.7", 1, ""));
  (void)told(Type::connected);
  ScriptedDevice& same = dialThrough(proxyHeader("10.0.0.7", 1, "other"));
  EXPECT_EQ(told(Type::refused).refusal(), MasterEvent::Refusal::duplicate);
  ScriptedDevice& far = dialThrough(proxyHeader("10.0.1.7", 1, ""));
  runUntil([&] { return count(Type::refused) == 2; });
  EXPECT_EQ(events.back().refusal(), MasterEvent::Refusal::address);
  EXPECT_EQ(events.back().host(), "10.0.1.7");
  EXPECT_EQ(same.came + far.came, "");
}

TEST_F(MasterTest, EveryEventMayDestroyTheMaster) {
  for (const Type type : {Type::connected, Type::additional, Type::agentConnected, Type::clause,
                          Type::additionalLost, Type::lost, Type::refused}) {
    if (type == Type::refused) {
      ASSERT_TRUE(options.allowAddresses("127.0.0.2"));
    }
    bool gone = false;
    onEvent = [this, type, &gone](const MasterEvent& event) {
      if (event.type() == type) {
        master.reset();
        gone = true;  // a variable of this function, which must still exist
      }
    };
    open();
    dial();
    runUntil([&] { return gone || count(Type::connected) > 0; });
    if (!gone) {
      dial().say("<a/><b/>");
      devices.back().answers = false;
      runUntil([&] { return gone || count(Type::clause) == 2; });
    }
    if (!gone) {
      devices.back().close();
      runUntil([&] { return gone || count(Type::additionalLost) == 1; });
    }
    if (!gone) {
      devices.front().close();
      runUntil([&] { return gone; });
    }
    loop.step();
    EXPECT_EQ(events.back().type(), type) << "no event after the destruction";
    devices.clear();
    events.clear();
  }
}

TEST_F(MasterTest, ReplyHandlerMayDestroyTheMaster) {
  open();
  dialAndWait();
  bool gone = false;
  master->ask("fake", Request({"hostid"}), [this, &gone](const Reply&) {
    master.reset();
    gone = true;
  });
  master->ask("fake", Request({"hostid"}), [](const Reply&) { FAIL(); });
  runUntil([&] { return gone; });
  loop.step();
}

TEST_F(MasterTest, AnswerHandlerMayDestroyTheUserAndTheMaster) {
  open();
  dialAndWait();
  auto user = attach();
  user->forward(Request({"hostid"}).encode(), [&](const std::string&) {
    user.reset();
    master.reset();
  });
  user->forward(Request({"hostid"}).encode(), [](const std::string&) { FAIL(); });
  runUntil([&] { return !master; });
  loop.step();
}

TEST(BlockingMasterTest, WaitsForDevicesAndAsks) {
  Master master(MasterOptions().setListen("127.0.0.1", 0));
  ASSERT_TRUE(master.open());
  ScriptedDevice one(master.port(), "one", "127.0.0.2");
  ScriptedDevice two(master.port(), "two", "127.0.0.3");
  one.sayIdentity();
  two.sayIdentity();
  const auto devices = master.waitForDevices(2, Milliseconds(60000));
  ASSERT_TRUE(devices);
  EXPECT_EQ((*devices)[0].name() + (*devices)[1].name(), "onetwo");
  two.say(frameOf(recordOf("2")));
  const Result<Reply> reply = master.ask("two", Request({"hostid"}));
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->output(), "2");
  one.say(frameOf(recordOf("first")));
  two.say(frameOf(recordOf("second")));
  const auto replies = master.askAll(Request({"read", "/etc/version"}));
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0].first + " " + replies[0].second.output(), "one first");
  EXPECT_EQ(replies[1].first + " " + replies[1].second.output(), "two second");
}

TEST(BlockingMasterTest, WaitingHasALimit) {
  Master master(MasterOptions().setListen("127.0.0.1", 0));
  ASSERT_TRUE(master.open());
  EXPECT_FALSE(master.nextEvent(Milliseconds(0)));
  EXPECT_FALSE(master.nextEvent(Milliseconds(20)));
  const auto devices = master.waitForDevices(1, Milliseconds(20));
  ASSERT_FALSE(devices);
  EXPECT_EQ(devices.error().kind(), Kind::timeout);
  EXPECT_EQ(devices.error().text(), "0 of 1 devices are connected");
  EXPECT_TRUE(master.waitForDevices(0, Milliseconds(0)));
}

TEST(BlockingMasterTest, RequestHasATimeout) {
  Master master(MasterOptions().setListen("127.0.0.1", 0).setTimeout(Milliseconds(100)));
  ASSERT_TRUE(master.open());
  ScriptedDevice device(master.port());
  device.sayIdentity();
  ASSERT_TRUE(master.waitForDevices(1, Milliseconds(60000)));
  const Result<Reply> reply = master.ask("fake", Request({"hostid"}));
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error().kind(), Kind::timeout);
  EXPECT_EQ(master.ask("other", Request({"hostid"})).error().kind(), Kind::link);
}

TEST(BlockingMasterTest, GivesEventsAndSendsClauses) {
  Master master(MasterOptions().setListen("127.0.0.1", 0));
  ASSERT_TRUE(master.open());
  ScriptedDevice device(master.port());
  device.sayIdentity();
  ASSERT_TRUE(master.waitForDevices(1, Milliseconds(60000)));
  ScriptedDevice bridge(master.port());
  bridge.answers = false;
  bridge.say("<hello/>");
  for (const Type type : {Type::connected, Type::additional, Type::agentConnected, Type::clause}) {
    const auto event = master.nextEvent(Milliseconds(60000));
    ASSERT_TRUE(event);
    EXPECT_EQ(event->type(), type);
  }
  ASSERT_TRUE(master.sendClause("fake", "<a/>"));
  bridge.serve();
  EXPECT_EQ(bridge.came, "<a/>\r\n");
  EXPECT_EQ(master.sendClause("fake", "<a>").error().kind(), Kind::local);
}

TEST(BlockingMasterTest, SendingAClauseHasATimeout) {
  Master master(MasterOptions().setListen("127.0.0.1", 0).setTimeout(Milliseconds(100)));
  ASSERT_TRUE(master.open());
  ScriptedDevice device(master.port());
  device.sayIdentity();
  ASSERT_TRUE(master.waitForDevices(1, Milliseconds(60000)));
  const ScriptedDevice bridge(master.port());
  bridge.say("<hello/>");
  std::optional<MasterEvent> event;
  for (int i = 0; i < 4; ++i) {
    event = master.nextEvent(Milliseconds(60000));
  }
  ASSERT_TRUE(event && event->type() == Type::clause);
  const auto sent = master.sendClause("127.0.0.1", "<a>" + std::string(30000000, 'x') + "</a>");
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().kind(), Kind::timeout);
  EXPECT_EQ(sent.error().outcome(), Outcome::unknown);
}

TEST(BlockingMasterTest, TellsThatTheAgentHasLeft) {
  Master first(MasterOptions().setListen("127.0.0.1", 0));
  Master master = std::move(first);
  ASSERT_TRUE(master.open());
  ScriptedDevice device(master.port());
  device.sayIdentity();
  ASSERT_TRUE(master.waitForDevices(1, Milliseconds(60000)));
  ScriptedDevice bridge(master.port());
  bridge.say("<hello/>");
  std::optional<MasterEvent> event = master.nextEvent(Milliseconds(60000));
  while (event && event->type() != Type::clause) {
    event = master.nextEvent(Milliseconds(60000));
  }
  ASSERT_TRUE(event);
  bridge.resetConnection();
  const auto sent = master.sendClause("127.0.0.1", "<a/>");
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().text(), "the connection to the agent was closed");
  EXPECT_EQ(sent.error().outcome(), Outcome::unknown);
}

TEST(BlockingMasterTest, DropsTheOldestOfTooManyEvents) {
  Master master(MasterOptions().setListen("127.0.0.1", 0));
  ASSERT_TRUE(master.open());
  ScriptedDevice device(master.port());
  device.sayIdentity();
  ASSERT_TRUE(master.waitForDevices(1, Milliseconds(60000)));
  const ScriptedDevice bridge(master.port());
  std::string clauses;
  for (int i = 0; i < 5000; ++i) {
    clauses += "<n>" + std::to_string(i) + "</n>";
  }
  bridge.say(clauses);
  for (int i = 0; i < 12000 && master.devices()[0].clauses() < 5000; ++i) {
    (void)master.waitForDevices(2, Milliseconds(5));
  }
  const auto oldest = master.nextEvent(Milliseconds(0));
  ASSERT_TRUE(oldest);
  EXPECT_EQ(oldest->text(), "<n>904</n>");
}

}  // namespace
}  // namespace runel
