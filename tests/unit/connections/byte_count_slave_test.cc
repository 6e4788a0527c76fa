// SPDX-License-Identifier: Apache-2.0
#include "connections/byte_count_slave.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <syslog.h>

#include <zell/led_control.h>

#include "fakes/system/fake_system.h"
#include "fakes/zell/fake_zell.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/task_wire.h"

namespace zell {
namespace {

using test::FakeDevice;
using test::FakeProxy;
using test::frame;
using test::LogCapture;
using test::LogEntry;
using test::reply;
using test::request;
using test::SocketPair;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kExists = request({"fileexists", "/file"});

// Resets the device before the handler is constructed.
class CleanDevice {
 protected:
  CleanDevice() {
    test::FakeSystem::instance().reset();
    device.reset();
    device.files["/file"] = "content";
  }

  FakeDevice& device = FakeDevice::instance();
};

class ByteCountSlaveTest : public ::testing::Test, protected CleanDevice {
 protected:
  void take(std::string packet) { slave.handleMessage(packet); }
  static LogEntry partial(const std::string& shown) {
    return {LOG_DEBUG,
            "(PID) handleMessage: got packet, but it is not a complete message '" + shown + "'"};
  }

  LogCapture log;
  SocketPair sockets = SocketPair::local();
  ByteCountSlave slave{sockets.near()};
};

TEST_F(ByteCountSlaveTest, ServesItsSocketWithTheByteCountProtocol) {
  EXPECT_EQ(slave.socket(), sockets.near());
  EXPECT_EQ(slave.protocol(), RunelConnection::kByteCount);
  EXPECT_FALSE(slave.stopRequested());
  EXPECT_FALSE(slave.inputPending());
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(ByteCountSlaveTest, GivesItsProxyToTheLedController) {
  EXPECT_THAT(device.calls, IsEmpty());
  EXPECT_TRUE(LedControl::instance().blinkLeds(LedStyle::on));
  EXPECT_THAT(device.calls, ElementsAre("setLeds 1 1"));
}

TEST_F(ByteCountSlaveTest, DrivesTheLedsAgainAfterALaterConnection) {
  auto second = std::make_unique<ByteCountSlave>(sockets.near());
  second.reset();
  EXPECT_TRUE(LedControl::instance().blinkLeds(LedStyle::on));
  EXPECT_THAT(device.calls, ElementsAre("setLeds 1 1"));
}

TEST_F(ByteCountSlaveTest, SendsAnswersWithoutDelay) {
  const SocketPair tcp = SocketPair::tcp();
  const ByteCountSlave connected(tcp.near());
  int set = 0;
  socklen_t length = sizeof set;
  ASSERT_EQ(getsockopt(tcp.near(), IPPROTO_TCP, TCP_NODELAY, &set, &length), 0);
  EXPECT_NE(set, 0);
}

TEST_F(ByteCountSlaveTest, AnswersARequestOnItsSocket) {
  take(kExists);
  EXPECT_EQ(sockets.received(), reply(""));
  EXPECT_THAT(FakeProxy::newest().calls, ElementsAre("fileExists /file"));
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(ByteCountSlaveTest, LogsOneLineForAPacketThatCompletesNoMessage) {
  take(kExists.substr(0, 10));
  EXPECT_EQ(sockets.received(), "");
  EXPECT_THAT(log.entries(), ElementsAre(partial(".48.SlaveT")));
  EXPECT_FALSE(slave.inputPending());
  take(kExists.substr(10));
  EXPECT_EQ(sockets.received(), reply(""));
  EXPECT_EQ(log.entries().size(), 1U);
}

TEST_F(ByteCountSlaveTest, LogsThePacketWithoutEarlierInput) {
  take(kExists.substr(0, 10));
  log.clear();
  take(kExists.substr(10, 4));
  EXPECT_THAT(log.entries(), ElementsAre(partial("ask ")));
}

TEST_F(ByteCountSlaveTest, LogsAnEmptyPacketWithAnEmptyBuffer) {
  take("");
  EXPECT_THAT(log.entries(), ElementsAre(partial("")));
}

TEST_F(ByteCountSlaveTest, ShowsSixtyBytesOfAPacketWhole) {
  take(
      "\x01"
      "999\x02" +
      std::string(55, 'x'));
  EXPECT_THAT(log.entries(), ElementsAre(partial(".999." + std::string(55, 'x'))));
}

TEST_F(ByteCountSlaveTest, ShowsFiftySevenBytesOfALongerPacket) {
  take(
      "\x01"
      "999\x02" +
      std::string(56, 'x'));
  EXPECT_THAT(log.entries(), ElementsAre(partial(".999." + std::string(52, 'x') + "...")));
}

TEST_F(ByteCountSlaveTest, AnswersForAnySplitOfTheBytes) {
  const std::string stream = request({"read", "/file"}) + kExists;
  const std::string answers = reply("content") + reply("");
  for (std::size_t cut = 1; cut < stream.size(); ++cut) {
    take(stream.substr(0, cut));
    take(stream.substr(cut));
    ASSERT_EQ(sockets.received(), answers) << "cut at " << cut;
  }
}

TEST_F(ByteCountSlaveTest, AnswersByteByByte) {
  for (const char byte : kExists) {
    EXPECT_EQ(sockets.received(), "");
    take(std::string(1, byte));
  }
  EXPECT_EQ(sockets.received(), reply(""));
  EXPECT_EQ(log.entries().size(), kExists.size() - 1);
}

TEST_F(ByteCountSlaveTest, AnswersAllRequestsOfAPacketInTheirOrder) {
  device.hostId = "abc";
  take(request({"read", "/file"}) + request({"hostid"}) + request({"read", "/none"}));
  EXPECT_EQ(sockets.received(), reply("content") + reply("abc") + reply("", "1 0 1 2 0"));
  EXPECT_THAT(FakeProxy::newest().calls, ElementsAre("readFile /file", "hostId", "readFile /none"));
}

TEST_F(ByteCountSlaveTest, SkipsLeadingBlanksOfAFirstPacket) {
  take(" \t\r\n" + kExists + "\r\n" + kExists);
  EXPECT_EQ(sockets.received(), reply("") + reply(""));
}

TEST_F(ByteCountSlaveTest, PassesAnExceptionToItsCallerAndKeepsLaterRequests) {
  device.onCall = [](const std::string& call) {
    if (call == "hostId") {
      throw std::runtime_error("no host");
    }
  };
  EXPECT_THROW(take(request({"hostid"}) + kExists + kExists), std::runtime_error);
  EXPECT_EQ(sockets.received(), "");
  EXPECT_TRUE(slave.inputPending());
  take("");
  EXPECT_EQ(sockets.received(), reply("") + reply(""));
  EXPECT_FALSE(slave.inputPending());
  EXPECT_THAT(FakeProxy::newest().calls,
              ElementsAre("hostId", "fileExists /file", "fileExists /file"));
}

TEST_F(ByteCountSlaveTest, DropsAMessageThatIsNotATaskAndContinues) {
  take(frame("hello") + kExists);
  EXPECT_EQ(sockets.received(), reply(""));
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) handleMessage: unexpected task 'hello'"}));
}

TEST_F(ByteCountSlaveTest, DropsAnEmptyMessage) {
  take(frame(""));
  EXPECT_EQ(sockets.received(), "");
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) handleMessage: unexpected task ''"}));
}

TEST_F(ByteCountSlaveTest, DropsATaskNameWithoutATrailingBlank) {
  take(frame("SlaveTask") + frame("slaveTask 0") + frame("SlaveTasks 0"));
  EXPECT_EQ(sockets.received(), "");
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("(PID) handleMessage: unexpected task 'SlaveTask'",
                          "(PID) handleMessage: unexpected task 'slaveTask 0'",
                          "(PID) handleMessage: unexpected task 'SlaveTasks 0'"));
}

TEST_F(ByteCountSlaveTest, ShowsAtMostSixtyBytesOfAnUnexpectedMessage) {
  take(frame(std::string(60, 'a')) + frame(std::string(61, 'b')));
  EXPECT_THAT(
      log.texts(),
      ElementsAre("(PID) handleMessage: unexpected task '" + std::string(60, 'a') + "'",
                  "(PID) handleMessage: unexpected task '" + std::string(57, 'b') + "...'"));
}

TEST_F(ByteCountSlaveTest, ShowsTheControlBytesOfAnUnexpectedMessageAsDots) {
  take(frame(std::string("a\0b\nc\x7f", 6)));
  EXPECT_THAT(log.texts(), ElementsAre("(PID) handleMessage: unexpected task 'a.b.c.'"));
}

TEST_F(ByteCountSlaveTest, RefusesAMalformedRecord) {
  take(frame("SlaveTask one") + kExists);
  EXPECT_EQ(
      sockets.received(),
      reply("(" + std::to_string(getpid()) + ") too few arguments: ", "4 0 1 22 0") + reply(""));
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) too few arguments: "}));
}

TEST_F(ByteCountSlaveTest, StopsAtABadFrameAfterAnsweringTheMessagesBeforeIt) {
  take(kExists + "junk" + kExists);
  EXPECT_EQ(sockets.received(), reply(""));
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) acceptBytes: bad frame on socket " +
                                                std::to_string(sockets.near()) +
                                                ", byte 0x6a where a frame must begin"}));
  char byte = 0;
  EXPECT_EQ(recv(sockets.near(), &byte, 1, MSG_DONTWAIT), 0) << "the reading side has not ended";
  log.clear();
  take(kExists);
  EXPECT_EQ(sockets.received(), "");
  EXPECT_FALSE(slave.inputPending());
  EXPECT_THAT(log.entries(),
              ElementsAre(partial(".48.SlaveTask 2 10:fileexists 5:/file 0 0: 0 0 0 0 0")));
}

TEST_F(ByteCountSlaveTest, RequestsAStopAfterRestartAndAnswersLaterRequests) {
  take(request({"restart"}) + kExists);
  EXPECT_TRUE(slave.stopRequested());
  EXPECT_EQ(sockets.received(), reply(""));
  take(kExists);
  EXPECT_EQ(sockets.received(), reply(""));
  EXPECT_TRUE(slave.stopRequested());
}

TEST_F(ByteCountSlaveTest, RunsTheRequestsOfADisconnectedPeer) {
  sockets.closeFar();
  take(kExists + request({"write", "/new", "data"}));
  EXPECT_EQ(device.files["/new"], "data");
  EXPECT_EQ(
      log.count("(PID) sendMessage: socket " + std::to_string(sockets.near()) + ", Broken pipe"),
      2);
}

TEST_F(ByteCountSlaveTest, SendsExactlyTheReply) {
  const std::string bytes("\0\x01\x02\xff:", 5);
  device.files["/bytes"] = bytes;
  take(request({"read", "/bytes"}));
  EXPECT_EQ(sockets.received(), "\x01" + ("31\x02SlaveTask 0 0 5:" + bytes) + " 0 0 0 0 0");
}

}  // namespace
}  // namespace zell
