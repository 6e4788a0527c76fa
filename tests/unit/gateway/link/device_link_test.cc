// SPDX-License-Identifier: Apache-2.0
// Requests to devices over loopback.
#include "gateway/link/device_link.h"

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/gateway/fake_device.h"
#include "support/temp_dir.h"

namespace runelgw {
namespace {

using runel::Clock;
using runel::Milliseconds;
using test::FakeDevice;
using test::requestOf;

// Binds each device to a number in the order of the connections, or to that of its host identifier.
class Observer : public LinkObserver {
 public:
  std::optional<Milliseconds> silenceFor(const Place& place) override {
    return silence ? silence(place) : Milliseconds(0);
  }
  void connected(const Place& place, const std::string& hostid,
                 const std::string& deviceType) override {
    events.push_back("connected " + place.host + " " + hostid + " " + deviceType);
    places.push_back(place);
    if (onConnected) {
      onConnected(place, hostid);
    }
  }
  void lost(const Place& place, const std::string& why) override {
    events.push_back("lost " + place.host + ": " + why);
  }
  void agentConnected(const Place& bridge, DeviceId device) override {
    events.push_back("agent " + bridge.host + " of " + std::to_string(device));
  }
  void agentLost(const Place& bridge, DeviceId device) override {
    events.push_back("no agent " + bridge.host + " of " + std::to_string(device));
  }
  void clause(const Place& /*bridge*/, DeviceId device, const std::string& text) override {
    events.push_back("clause of " + std::to_string(device) + ": " + text);
  }
  void refusedConnection(const Place& place, const std::string& why) override {
    events.push_back("refused " + place.host + ": " + why);
  }
  void problem(const std::string& text) override { events.push_back("problem " + text); }

  std::function<std::optional<Milliseconds>(const Place&)> silence;
  std::function<void(const Place&, const std::string&)> onConnected;
  std::vector<std::string> events;
  std::vector<Place> places;
};

class DeviceLinkTest : public ::testing::Test {
 protected:
  DeviceLinkTest() {
    settings.listen = {{"127.0.0.1", 0}};
    observer.onConnected = [this](const Place& place, const std::string& hostid) {
      link->bind(place, hostid.empty() ? 1 : std::stoul("0" + hostid));
    };
  }
  void open() {
    link = std::make_unique<DeviceLink>(loop, settings, spool, observer);
    const auto opened = link->open();
    ASSERT_TRUE(opened) << opened.error().text();
  }
  /// The device @p id, connected and bound.
  FakeDevice& dial(DeviceId id, bool returns = false) {
    FakeDevice::Settings own;
    own.hostid = std::to_string(id);
    own.source = "127.0.1." + std::to_string(id);
    own.returns = returns;
    FakeDevice& device = devices.emplace_back(loop, link->ports().front(), own);
    const std::size_t before = observer.places.size();
    EXPECT_TRUE(runUntil([&] { return observer.places.size() > before; }));
    return device;
  }
  CallId send(DeviceId device, const std::string& request,
              std::optional<Milliseconds> limit = std::nullopt) {
    Call call;
    call.device = device;
    call.request = request;
    call.label = "token ci";
    if (limit) {
      call.deadline = Clock::now() + *limit;
    }
    const std::size_t number = answers.size();
    answers.emplace_back();
    return link->send(std::move(call), [this, number](Answer answer) {
      EXPECT_FALSE(answers[number]) << "exactly once";
      answers[number] = std::move(answer);
      ++done;
    });
  }
  bool runUntil(const std::function<bool()>& until) { return test::runUntil(loop, until); }
  bool waitFor(std::size_t count) {
    return runUntil([&] { return done >= count; });
  }
  /// "OUTCOME REASON" of an answer.
  std::string end(std::size_t number) const {
    if (!answers.at(number)) {
      return "";
    }
    return std::string(nameOf(answers[number]->outcome)) + " " + codeOf(answers[number]->reason);
  }
  void steps(int count) {
    for (int i = 0; i < count; ++i) {
      loop.turn(Milliseconds(1));
    }
  }

  zell::test::TempDir directory;
  runel::Loop loop;
  LinkSettings settings;
  std::shared_ptr<PayloadSpool> spool = std::make_shared<PayloadSpool>(directory.path(), 50000000);
  Observer observer;
  std::unique_ptr<DeviceLink> link;
  std::list<FakeDevice> devices;
  std::vector<std::optional<Answer>> answers;
  std::size_t done = 0;
};

const std::string kAnswered = "answered none";

TEST_F(DeviceLinkTest, PassesRequestsAndAnswersByteForByte) {
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask& task) { return "content of " + task.args()[1]; };
  send(1, requestOf({"read", "/a"}));
  EXPECT_FALSE(answers[0]) << "never within the call";
  send(1, requestOf({"read", "/b"}));
  ASSERT_TRUE(waitFor(2));
  EXPECT_EQ(end(0), kAnswered);
  EXPECT_EQ(answers[0]->payload.bytes(), test::replyOf("content of /a"));
  EXPECT_EQ(answers[1]->payload.bytes(), test::replyOf("content of /b"));
  EXPECT_EQ(device.tasks, (std::vector<std::string>{"read /a", "read /b"}));
  EXPECT_NE(device.raw.find(test::frameOf(requestOf({"read", "/a"}))), std::string::npos);
  const LinkCounters counters = link->counters();
  EXPECT_EQ(counters.requests.at({"read", Outcome::answered}), 2U);
  EXPECT_EQ(counters.queued, 0U);
  EXPECT_EQ(counters.busyDevices, 0U) << "an idle device has no queue";
  EXPECT_EQ(counters.connected, 1U);
}

TEST_F(DeviceLinkTest, ADeviceThatIsNotConnectedIsOffline) {
  open();
  send(7, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(0), "not run offline");
  EXPECT_EQ(link->counters().requests.at({"read", Outcome::notRun}), 1U);
}

TEST_F(DeviceLinkTest, RefusesAPayloadThatIsNotARecord) {
  open();
  dial(1);
  send(1, "hello");
  send(1, requestOf({"restart", std::string(kLargePayload, 'x')}));
  ASSERT_TRUE(waitFor(2));
  EXPECT_EQ(end(0), "not run refused");
  EXPECT_EQ(end(1), "not run refused");
}

TEST_F(DeviceLinkTest, ARestartIsDoneWhenItIsSent) {
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"restart"}));
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(0), kAnswered);
  EXPECT_EQ(answers[0]->payload.size(), 0U);
}

TEST_F(DeviceLinkTest, AFullQueueIsBusyAtOnce) {
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"exec", "/bin/sleep"}, 0));
  for (int i = 1; i < 64; ++i) {
    send(1, requestOf({"read", "/a"}));
  }
  EXPECT_EQ(link->queue(1).waiting, 64U);
  EXPECT_EQ(link->queue(1).busyWith, "exec by token ci");
  EXPECT_GT(link->queue(1).since, 0);
  send(1, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(64), "not run busy");
  EXPECT_EQ(answers[64]->text.find("busy with exec by token ci since 20"), 0U) << answers[64]->text;
  EXPECT_TRUE(runUntil([&] { return !device.tasks.empty(); }));
  steps(5);
  EXPECT_EQ(device.tasks.size(), 1U) << "what waits behind a long request is not sent";
}

TEST_F(DeviceLinkTest, ASlowDeviceDelaysNoOther) {
  open();
  FakeDevice& slow = dial(1);
  slow.setReading(false);
  FakeDevice& fast = dial(2);
  for (int i = 0; i < 40; ++i) {
    send(1, requestOf({"write", "/a", std::string(900000, 'x')}));
  }
  send(2, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(40), kAnswered);
  EXPECT_EQ(fast.tasks.size(), 1U);
  EXPECT_TRUE(slow.tasks.empty());
  slow.setReading(true);
  ASSERT_TRUE(waitFor(41));
  EXPECT_EQ(slow.tasks.size(), 40U);
}

TEST_F(DeviceLinkTest, ALossEndsEachRequestWithItsOutcome) {
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"append", "/a", "x"}));
  send(1, requestOf({"read", "/a"}));
  send(1, requestOf({"exec", "/bin/true"}, 10));
  ASSERT_TRUE(runUntil([&] { return device.tasks.size() == 2; }));
  device.close();
  ASSERT_TRUE(waitFor(3));
  EXPECT_EQ(end(0), "unknown whether it ran lost");
  EXPECT_EQ(end(1), "unknown whether it ran lost") << "without a deadline nothing is repeated";
  EXPECT_EQ(end(2), "not run lost");
  send(1, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(4));
  EXPECT_EQ(end(3), "not run offline");
}

TEST_F(DeviceLinkTest, WhatMayBeRepeatedIsSentAgainWhenTheDeviceReturns) {
  open();
  FakeDevice& device = dial(1);
  bool answers_ = false;
  device.react = [&](const zell::SlaveTask&) -> std::optional<std::string> {
    return answers_ ? std::optional<std::string>("x") : std::nullopt;
  };
  send(1, requestOf({"read", "/a"}), Milliseconds(60000));
  send(1, requestOf({"append", "/a", "x"}), Milliseconds(60000));
  send(1, requestOf({"exec", "/bin/true"}, 10), Milliseconds(60000));
  ASSERT_TRUE(runUntil([&] { return device.tasks.size() == 2; }));
  device.reset();
  ASSERT_TRUE(waitFor(2));
  answers_ = true;
  device.connect();
  ASSERT_TRUE(waitFor(3));
  EXPECT_EQ(end(0), kAnswered);
  EXPECT_EQ(end(1), "unknown whether it ran lost");
  EXPECT_EQ(end(2), "not run lost");
  EXPECT_EQ(device.tasks, (std::vector<std::string>{"read /a", "append /a", "read /a"}));
  EXPECT_EQ(link->counters().retries, 1U);
}

TEST_F(DeviceLinkTest, WhatWasSentBeforeALossIsUnknownEvenIfItIsNotSentAgain) {
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"read", "/a"}), Milliseconds(200));
  send(1, requestOf({"exec", "/bin/true"}, 10), Milliseconds(200));
  ASSERT_TRUE(runUntil([&] { return device.tasks.size() == 1; }));
  device.close();
  ASSERT_TRUE(waitFor(2));
  EXPECT_EQ(end(0), "unknown whether it ran deadline");
  EXPECT_EQ(end(1), "not run lost") << "the exec waited";
}

TEST_F(DeviceLinkTest, TheDeadlineEndsWhatWaitsAndWhatRuns) {
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"exec", "/bin/sleep"}, 5), Milliseconds(50));
  send(1, requestOf({"read", "/a"}), Milliseconds(50));
  send(1, requestOf({"read", "/b"}), Milliseconds(0));
  ASSERT_TRUE(waitFor(3));
  EXPECT_EQ(end(0), "unknown whether it ran deadline");
  EXPECT_EQ(end(1), "not run deadline");
  EXPECT_EQ(end(2), "not run deadline");
  EXPECT_EQ(link->queue(1).waiting, 1U) << "the device is still busy";
  device.react = [](const zell::SlaveTask&) { return std::string(); };
  send(1, requestOf({"read", "/c"}));
  steps(5);
  EXPECT_EQ(device.tasks.size(), 1U);
  device.reply("late");
  ASSERT_TRUE(waitFor(4));
  EXPECT_EQ(end(3), kAnswered);
  EXPECT_EQ(answers[3]->payload.bytes(), test::replyOf("")) << "not the late answer";
}

TEST_F(DeviceLinkTest, CancelledCallsAreNotSentOrTheirAnswersIgnored) {
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  const CallId first = send(1, requestOf({"exec", "/bin/sleep"}, 5));
  const CallId second = send(1, requestOf({"read", "/a"}));
  send(1, requestOf({"read", "/b"}));
  ASSERT_TRUE(runUntil([&] { return device.tasks.size() == 1; }));
  link->cancel(second);
  link->cancel(second);
  link->cancel(first);
  device.react = [](const zell::SlaveTask&) { return std::string(); };
  device.reply("slept");
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(2), kAnswered);
  EXPECT_EQ(device.tasks, (std::vector<std::string>{"exec /bin/sleep", "read /b"}));
  EXPECT_FALSE(answers[0] || answers[1]);
  EXPECT_EQ(link->counters().queued, 0U);
}

TEST_F(DeviceLinkTest, SilenceIsLimitedByTheIoTimeout) {
  settings.ioTimeout = Milliseconds(100);
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(0), "unknown whether it ran deadline");
  EXPECT_EQ(answers[0]->text, "no answer within the I/O timeout");
  EXPECT_TRUE(runUntil([&] { return device.tasks.size() == 2; }));
  EXPECT_EQ(device.tasks[1], "fileexists /") << "the liveness check";
}

TEST_F(DeviceLinkTest, StopEndsEverything) {
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"exec", "/bin/sleep"}, 5));
  send(1, requestOf({"read", "/a"}), Milliseconds(60000));
  ASSERT_TRUE(runUntil([&] { return device.tasks.size() == 1; }));
  link->stop();
  send(1, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(3));
  EXPECT_EQ(end(0), "unknown whether it ran stopping");
  EXPECT_EQ(end(1), "not run stopping");
  EXPECT_EQ(end(2), "not run stopping");
  EXPECT_TRUE(device.isOpen());
}

TEST_F(DeviceLinkTest, LargePayloadsGoThroughTheSpool) {
  open();
  FakeDevice& device = dial(1);
  const std::string content(3000000, 'y');
  device.react = [&](const zell::SlaveTask& task) {
    return task.args()[0] == "read" ? content : std::to_string(task.args()[2].size());
  };
  const std::string request = requestOf({"write", "/a", std::string(2000000, 'x')});
  auto writer = spool->begin(request.size());
  ASSERT_TRUE(writer);
  ASSERT_TRUE((*writer)->add(request));
  Call call;
  call.device = 1;
  call.request = (*writer)->finish();
  std::optional<Answer> written;
  link->send(std::move(call), [&](Answer answer) { written = std::move(answer); });
  send(1, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(1));
  ASSERT_TRUE(written);
  EXPECT_EQ(written->payload.bytes(), test::replyOf("2000000"));
  const Payload& large = answers[0]->payload;
  EXPECT_FALSE(large.isInMemory());
  std::string bytes;
  ASSERT_TRUE(large.read(0, static_cast<std::size_t>(large.size()), bytes));
  EXPECT_TRUE(bytes == test::replyOf(content));
  EXPECT_EQ(spool->used(), large.size());
}

TEST_F(DeviceLinkTest, AnAnswerThatDoesNotFitIsUnknown) {
  spool = std::make_shared<PayloadSpool>(directory.path(), 2000000);
  open();
  dial(1).react = [&](const zell::SlaveTask& task) {
    return std::string(task.args()[1] == "/large" ? 3000000 : 3, 'y');
  };
  send(1, requestOf({"read", "/large"}));
  send(1, requestOf({"read", "/small"}));
  ASSERT_TRUE(waitFor(2));
  EXPECT_EQ(end(0), "unknown whether it ran storage");
  EXPECT_EQ(end(1), kAnswered);
}

// A device that still has a slave connection of an earlier gateway: its next one is a bridge.
TEST_F(DeviceLinkTest, ABridgeOfAnEarlierConnectionIsNeverWrittenTo) {
  observer.silence = [](const Place&) { return Milliseconds(400); };
  open();
  FakeDevice::Settings own;
  own.hostid = "1";
  FakeDevice& bridge = devices.emplace_back(loop, link->ports().front(), own);
  FakeDevice& surplus = devices.emplace_back(loop, link->ports().front(), own);
  bridge.say("<hello/>");
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 2; }));
  EXPECT_EQ(observer.events[1], "clause of 0: <hello/>");
  const auto end = Clock::now() + Milliseconds(900);
  ASSERT_TRUE(runUntil([&] { return Clock::now() > end; }));
  EXPECT_EQ(bridge.bytes + surplus.bytes, 0U);
  EXPECT_EQ(bridge.ends + surplus.ends, 0U) << "the end of a surplus connection ends the daemon";
  EXPECT_EQ(link->counters().additional, 2U);
  bridge.close();
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 3; }));
  FakeDevice& slave = devices.emplace_back(loop, link->ports().front(), own);
  ASSERT_TRUE(runUntil([&] { return slave.questions + surplus.questions > 0; }));
  EXPECT_EQ(surplus.ends, 0U);
}

TEST_F(DeviceLinkTest, AConnectionThatIsToBeSilentGetsNothing) {
  observer.silence = [](const Place&) { return std::nullopt; };
  open();
  FakeDevice::Settings own;
  FakeDevice& device = devices.emplace_back(loop, link->ports().front(), own);
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 1; }));
  EXPECT_EQ(observer.events[0], "refused 127.0.0.1: not to be used");
  steps(20);
  EXPECT_EQ(device.bytes, 0U);
  EXPECT_EQ(link->counters().silent, 1U);
}

TEST_F(DeviceLinkTest, AQuarantinedPlaceGetsNothingMore) {
  settings.ioTimeout = Milliseconds(100);
  open();
  FakeDevice& device = dial(1);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"append", "/a", "x"}));
  send(1, requestOf({"exec", "/bin/true"}, 10), Milliseconds(60000));
  ASSERT_TRUE(runUntil([&] { return device.tasks.size() == 1; }));
  const std::uint64_t before = device.bytes;
  link->silence(observer.places[0], Reason::quarantined);
  send(1, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(3));
  EXPECT_EQ(end(0), "unknown whether it ran quarantined");
  EXPECT_EQ(end(1), "not run quarantined");
  EXPECT_EQ(end(2), "not run quarantined");
  const auto until = Clock::now() + Milliseconds(800);
  ASSERT_TRUE(runUntil([&] { return Clock::now() > until; }));
  EXPECT_EQ(device.bytes, before);
  EXPECT_EQ(device.ends, 0U);
  EXPECT_EQ(link->counters().connected, 0U);
  EXPECT_EQ(link->counters().silent, 1U);
  device.close();
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 2; }));
  EXPECT_EQ(observer.events[1], "lost 127.0.1.1: the device closed the connection");
}

TEST_F(DeviceLinkTest, ASilentPlaceThatIsBoundIsUsedAgain) {
  open();
  FakeDevice& device = dial(1);
  link->silence(observer.places[0], Reason::waiting);
  send(1, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(0), "not run waiting");
  link->bind(observer.places[0], 1);
  send(1, requestOf({"read", "/b"}));
  ASSERT_TRUE(waitFor(2));
  EXPECT_EQ(end(1), kAnswered);
  EXPECT_EQ(link->counters().connected, 1U);
  device.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"append", "/a", "x"}));
  ASSERT_TRUE(runUntil([&] { return device.tasks.size() == 2; }));
  link->silence(observer.places[0], Reason::quarantined);
  ASSERT_TRUE(waitFor(3));
  link->bind(observer.places[0], 1);
  ASSERT_TRUE(runUntil([&] { return device.ends == 1; })) << "its answer may still come";
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 2; }));
  EXPECT_EQ(link->counters().connected, 0U);
}

TEST_F(DeviceLinkTest, APlaceBelongsToOneDeviceAndBindingTwiceChangesNothing) {
  open();
  FakeDevice& device = dial(1);
  // It answers the first request together with the liveness check, which follows a user that
  // leaves.
  device.react = [&](const zell::SlaveTask& task) {
    if (task.args()[0] == "fileexists") {
      device.reply("late");
    }
    return task.args()[0] == "append" ? std::nullopt : std::optional<std::string>("x");
  };
  send(1, requestOf({"append", "/a", "x"}));
  ASSERT_TRUE(runUntil([&] { return device.tasks.size() == 1; }));
  link->bind(observer.places[0], 1);
  steps(5);
  EXPECT_FALSE(answers[0]);
  link->bind(observer.places[0], 2);
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(0), "unknown whether it ran lost");
  send(1, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(2));
  EXPECT_EQ(end(1), "not run offline");
  send(2, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(3));
  EXPECT_EQ(answers[2]->payload.bytes(), test::replyOf("x"));
}

// The observer hears of a loss later than the connection: a request that is sent in between ends
// too.
TEST_F(DeviceLinkTest, ARequestBetweenALossAndItsReportIsNotRun) {
  open();
  FakeDevice& device = dial(1);
  device.close();
  std::size_t sent = 0;
  while (observer.events.size() < 2) {
    send(1, requestOf({"append", "/a", "x"}));
    ++sent;
    loop.turn(Milliseconds(1));
  }
  ASSERT_TRUE(waitFor(sent));
  for (std::size_t i = 0; i < sent; ++i) {
    EXPECT_NE(end(i), kAnswered);
  }
  EXPECT_EQ(link->counters().queued, 0U);
  EXPECT_EQ(link->counters().busyDevices, 0U);
}

TEST_F(DeviceLinkTest, SilencingAnEarlierPlaceLeavesTheDeviceAlone) {
  open();
  dial(1);
  FakeDevice::Settings own;
  own.hostid = "1";
  own.source = "127.0.2.1";
  FakeDevice& second = devices.emplace_back(loop, link->ports().front(), own);
  ASSERT_TRUE(runUntil([&] { return observer.places.size() == 2; }));
  second.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"append", "/a", "x"}));
  ASSERT_TRUE(runUntil([&] { return second.tasks.size() == 1; }));
  link->silence(observer.places[0], Reason::quarantined);
  steps(5);
  EXPECT_FALSE(answers[0]);
  second.reply("");
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(0), kAnswered);
}

TEST_F(DeviceLinkTest, ADeviceThatMovesIsUsedAtItsNewPlace) {
  open();
  FakeDevice& first = dial(1);
  first.react = [](const zell::SlaveTask&) { return std::nullopt; };
  send(1, requestOf({"read", "/a"}), Milliseconds(60000));
  send(1, requestOf({"append", "/a", "x"}));
  ASSERT_TRUE(runUntil([&] { return first.tasks.size() == 2; }));
  FakeDevice::Settings own;
  own.hostid = "1";
  own.source = "127.0.2.1";
  FakeDevice& second = devices.emplace_back(loop, link->ports().front(), own);
  ASSERT_TRUE(waitFor(2));
  EXPECT_EQ(end(0), kAnswered);
  EXPECT_EQ(end(1), "unknown whether it ran lost");
  EXPECT_EQ(second.tasks, std::vector<std::string>{"read /a"});
  first.close();
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 3; }));
  send(1, requestOf({"read", "/b"}));
  ASSERT_TRUE(waitFor(3));
  EXPECT_EQ(end(2), kAnswered) << "the end of the old place is not that of the device";
}

TEST_F(DeviceLinkTest, ClientCertificatesOfAProxyArePassedOn) {
  settings.proxies = {"127.0.0.100"};
  open();
  FakeDevice::Settings own;
  own.hostid = std::string("a\0b", 3);
  own.source = "127.0.0.100";
  own.preamble = std::string(
      "\r\n\r\n\0\r\nQUIT\n\x21\x11\0\x1b\x0a\0\0\7\x7f\0\0\1\x0f\xa1\x13\xf8"
      "\x20\0\x0c\3\0\0\0\0\x22\0\4gw-7",
      43);
  observer.onConnected = [this](const Place& place, const std::string&) { link->bind(place, 9); };
  devices.emplace_back(loop, link->ports().front(), own);
  ASSERT_TRUE(runUntil([&] { return !observer.places.empty(); }));
  EXPECT_EQ(observer.events[0], "connected 10.0.0.7 " + own.hostid + " server");
  EXPECT_EQ(observer.places[0].port, 4001);
  EXPECT_EQ(observer.places[0].certificate, "gw-7");
  send(9, requestOf({"read", "/a"}));
  ASSERT_TRUE(waitFor(1));
  EXPECT_EQ(end(0), kAnswered);
}

TEST_F(DeviceLinkTest, InvalidSettingsAreErrors) {
  settings.proxies = {"127.0.0.256"};
  link = std::make_unique<DeviceLink>(loop, settings, spool, observer);
  EXPECT_FALSE(link->open());
  settings.proxies.clear();
  settings.listen = {{"127.0.0.1", 0}, {"192.0.2.1", 0}};
  link = std::make_unique<DeviceLink>(loop, settings, spool, observer);
  const auto opened = link->open();
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error().text().find("192.0.2.1:0"), 0U);
}

TEST_F(DeviceLinkTest, SendsNoClauseToTheAgentOfASilencedDevice) {
  open();
  dial(1);
  FakeDevice::Settings own;
  own.source = "127.0.1.1";
  FakeDevice& bridge = devices.emplace_back(loop, link->ports().front(), own);
  bridge.say("<hello/>");
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 3; }));
  link->silence(observer.places[0], Reason::denied);
  const auto refused = link->sendClause(1, "<do/>");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().text(), "the device is on the deny list");
  EXPECT_EQ(bridge.raw, "");
}

TEST_F(DeviceLinkTest, AgentsBelongToTheirDevice) {
  open();
  dial(1);
  FakeDevice::Settings own;
  own.source = "127.0.1.1";
  FakeDevice& bridge = devices.emplace_back(loop, link->ports().front(), own);
  bridge.say("<hello/>");
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 3; }));
  EXPECT_EQ(observer.events[1], "agent 127.0.1.1 of 1");
  EXPECT_EQ(observer.events[2], "clause of 1: <hello/>");
  EXPECT_TRUE(link->sendClause(1, "<do/>"));
  ASSERT_TRUE(runUntil([&] { return !bridge.raw.empty(); }));
  EXPECT_EQ(bridge.raw, "<do/>\r\n");
  EXPECT_FALSE(link->sendClause(1, "no clause"));
  EXPECT_FALSE(link->sendClause(2, "<do/>"));
  bridge.close();
  ASSERT_TRUE(runUntil([&] { return observer.events.size() == 4; }));
  EXPECT_EQ(observer.events[3], "no agent 127.0.1.1 of 1");
}

}  // namespace
}  // namespace runelgw
