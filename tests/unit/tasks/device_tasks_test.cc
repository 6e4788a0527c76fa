// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <zell/led_control.h>

#include "unit/tasks/task_case.h"

namespace zell::test {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DeviceTasksTest : public TaskCase {
 protected:
  // The LEDs after one pass of the loop @p time later: "10" when only the first one is lit.
  std::string after(std::chrono::milliseconds time) {
    FakeSystem::instance().now += time;
    LedControl::instance().poll();
    return std::string(device.firstLed ? "1" : "0") + (device.secondLed ? "1" : "0");
  }
};

TEST_F(DeviceTasksTest, BlinkLedsStartsTheNamedStyle) {
  device.firstLed = true;
  for (const auto& [word, shown] : {std::pair<const char*, const char*>{"off", "00 00 00"},
                                    {"on", "11 11 11"},
                                    {"slow", "11 11 00"},
                                    {"fast", "11 00 11"},
                                    {"alternate", "10 10 01"}}) {
    EXPECT_EQ(run({"blinkleds", word}), replyRecord(""));
    const std::string start = after(milliseconds(0));
    const std::string next = after(milliseconds(125));
    EXPECT_EQ(start + " " + next + " " + after(milliseconds(375)), shown) << word;
  }
}

TEST_F(DeviceTasksTest, BlinkLedsWithAnUnknownWordChangesNothing) {
  (void)run({"blinkleds", "slow"});
  for (const std::string word : {"Slow", "", "slow ", "unknown"}) {
    EXPECT_EQ(run({"blinkleds", word}), replyRecord("", "1 0 1 22 0")) << word;
  }
  EXPECT_EQ(after(milliseconds(499)), "11");
  EXPECT_EQ(after(milliseconds(1)), "00");
}

TEST_F(DeviceTasksTest, BlinkLedsIsAnsweredOnItsConnectionWhenAnotherDrivesTheLeds) {
  (void)run({"fileexists", "/none"});
  const ByteCountSlave newer(sockets.near());
  EXPECT_EQ(run({"blinkleds", "fast"}), replyRecord(""));
}

TEST_F(DeviceTasksTest, ChangeLedsAcceptsOnlyAOneAsOn) {
  (void)run({"changeleds", "1", "1"});
  EXPECT_TRUE(device.firstLed && device.secondLed);
  (void)run({"changeleds", "1", "0"});
  EXPECT_TRUE(device.firstLed && !device.secondLed);
  (void)run({"changeleds", "0", "1"});
  EXPECT_TRUE(!device.firstLed && device.secondLed);
  for (const std::string other : {"on", "yes", "01", "1 ", " 1", "11", "", "true"}) {
    (void)run({"changeleds", "1", "1"});
    EXPECT_EQ(run({"changeleds", other, other}), replyRecord(""));
    EXPECT_FALSE(device.firstLed || device.secondLed) << other;
  }
}

TEST_F(DeviceTasksTest, DeviceTypeAnswersTheTypesName) {
  device.deviceType = DeviceType_t::controller;
  EXPECT_EQ(run({"devicetype"}), replyRecord("controller"));
  device.deviceType = DeviceType_t::server;
  EXPECT_EQ(run({"devicetype"}), replyRecord("server"));
  device.deviceType = DeviceType_t::unknown;
  EXPECT_EQ(run({"devicetype"}), replyRecord("unknown"));
}

TEST_F(DeviceTasksTest, HostIdAnswersTheIdentifier) {
  device.hostId = "0a1b2c3d";
  EXPECT_EQ(run({"hostid"}), replyRecord("0a1b2c3d"));
}

TEST_F(DeviceTasksTest, UpdateUmStatePassesKeyAndStateUnchanged) {
  const std::string state(" a\0b\n", 5);
  EXPECT_EQ(run({"updateumstate", "key", state}), replyRecord(""));
  EXPECT_EQ(device.files["/var/lib/runeld/umstate/key"], state);
  device.failures["storeUmState"] = EINVAL;
  EXPECT_EQ(run({"updateumstate", "../key", state}), replyRecord("", "1 0 1 22 0"));
}

TEST_F(DeviceTasksTest, RestartRequestsAStopAndAnswersNothing) {
  EXPECT_EQ(run({"restart"}), "none");
  EXPECT_TRUE(slave.stopRequested());
  EXPECT_EQ(sockets.received(), "");
  EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(DeviceTasksTest, RebootIsAcknowledgedOnTheWireBeforeItHappens) {
  std::string sentBefore = "not rebooted";
  bool stopBefore = true;
  device.onCall = [&](const std::string& call) {
    if (call == "reboot") {
      sentBefore = sockets.received();
      stopBefore = slave.stopRequested();
    }
  };
  EXPECT_EQ(run({"reboot"}), "none");
  EXPECT_EQ(sentBefore, reply(""));
  EXPECT_FALSE(stopBefore);
  EXPECT_TRUE(slave.stopRequested());
  EXPECT_EQ(sockets.received(), "") << "acknowledged twice";
}

TEST_F(DeviceTasksTest, RebootIsAcknowledgedWithTheStatusOfTheLastTask) {
  device.programs["/bin/die"].end = {SlaveStatus::failure, WatchProcessState_t::signalled, -1, 0,
                                     9};
  (void)run({"exec", "/bin/die"});
  (void)run({"reboot"});
  EXPECT_EQ(sockets.received(), reply("", "1 3 -1 0 9"));
}

TEST_F(DeviceTasksTest, RebootThatFailsStillStopsTheDaemon) {
  device.failures["reboot"] = EPERM;
  EXPECT_EQ(run({"reboot"}), "none");
  EXPECT_TRUE(slave.stopRequested());
  EXPECT_EQ(sockets.received(), reply(""));
}

TEST_F(DeviceTasksTest, RebootHappensWhenThePeerHasDisconnected) {
  sockets.closeFar();
  EXPECT_EQ(run({"reboot"}), "none");
  EXPECT_THAT(asked(), ElementsAre("reboot"));
  EXPECT_TRUE(slave.stopRequested());
}

TEST_F(DeviceTasksTest, RequestsAfterARebootAreStillAnswered) {
  std::string packet = request({"reboot"}) + request({"hostid"});
  slave.handleMessage(packet);
  EXPECT_EQ(sockets.received(), reply("") + reply("0123abcd"));
  EXPECT_THAT(asked(), ElementsAre("reboot", "hostId"));
}

}  // namespace
}  // namespace zell::test
