// SPDX-License-Identifier: Apache-2.0
// The relay's way out: one system call for each clause, whatever becomes of it.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>

#include "support/write_calls.h"
#include "unit/connections/relay_fixture.h"

namespace zell::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string errorText(const char* what, int socket, int error) {
  return std::string("(PID) write: ") + what + " on socket " + std::to_string(socket) + " (" +
         std::to_string(error) + ", " + std::strerror(error) + ")";
}

class XmlSlaveWriteTest : public RelayFixture {
 protected:
  // More than a socket's buffers take.
  static std::string huge() { return std::string(std::size_t{16} << 20, 'x'); }

  // Makes a write to @p socket give up soon.
  static void hurry(int socket) {
    const timeval soon{0, 20000};
    ASSERT_EQ(setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof soon), 0);
  }

  // Makes the clock go on by @p time from one reading to the next.
  static void passBetweenReadings(std::chrono::nanoseconds time) {
    FakeSystem::instance().clock = [time] { return FakeSystem::instance().now += time; };
  }

  // Fills the buffers of the bridge's socket.
  void fill() {
    const std::string text(4096, 'x');
    while (send(bridge.socket(), text.data(), text.size(), MSG_DONTWAIT) > 0) {
    }
  }

  // Whether the handler's end of @p sockets was shut down, both ways: its peer, after what still
  // waits there, and the server read the end.
  static bool shutDown(const SocketPair& sockets) {
    (void)sockets.received();
    char byte = 0;
    return sockets.ended() && recv(sockets.near(), &byte, 1, MSG_DONTWAIT) == 0;
  }
};

TEST_F(XmlSlaveWriteTest, ExtendsTheTextAndReturnsWhatWasWritten) {
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), 6);
  EXPECT_EQ(text, "<a/>\r\n");
  EXPECT_EQ(masterSockets.received(), "<a/>\r\n");
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(XmlSlaveWriteTest, MakesOneCallForEachClause) {
  link();
  const WriteCalls writes;
  give(agent, "<a/><b/>");
  EXPECT_THAT(writes.calls(), ElementsAre(WriteCalls::Call{bridge.socket(), "<a/>\r\n"},
                                          WriteCalls::Call{bridge.socket(), "<b/>\r\n"}));
}

TEST_F(XmlSlaveWriteTest, LogsAnError) {
  WriteCalls writes;
  writes.answer(-1, EIO);
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), -1);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, errorText("error", bridge.socket(), EIO)}));
}

TEST_F(XmlSlaveWriteTest, LogsAnEnd) {
  WriteCalls writes;
  writes.answer(0, EPIPE);
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), 0);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, errorText("error eof", bridge.socket(), EPIPE)}));
}

TEST_F(XmlSlaveWriteTest, LogsAShortWriteAndDoesNotGoOn) {
  WriteCalls writes;
  writes.answer(5, EINTR);
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), 5);
  EXPECT_THAT(
      log.entries(),
      ElementsAre(LogEntry{LOG_ERR, errorText("error write failed", bridge.socket(), EINTR)}));
  EXPECT_EQ(writes.calls().size(), 1U);
}

TEST_F(XmlSlaveWriteTest, GoesOnWithTheNextClauseAfterAFailure) {
  link();
  WriteCalls writes;
  writes.answer(-1, EIO);
  give(agent, "<a/><b/>");
  EXPECT_EQ(masterSockets.received(), "<b/>\r\n");
  EXPECT_EQ(contentsOf(agent), "");
}

TEST_F(XmlSlaveWriteTest, RefusesASocketNumberThatCannotBe) {
  for (const int socket : {-1, 65536, -2147483647 - 1}) {
    XmlSlave bogus(socket);
    log.clear();
    std::string text = "<a/>";
    EXPECT_EQ(bogus.write(text), -1);
    EXPECT_EQ(text, "<a/>");
    EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) write: bogus socket_ is " +
                                                                 std::to_string(socket)}));
  }
}

TEST_F(XmlSlaveWriteTest, TriesTheHighestSocketNumber) {
  XmlSlave last(65535);
  EXPECT_THAT(log.entries(), IsEmpty());
  std::string text = "<a/>";
  EXPECT_EQ(last.write(text), -1);
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, errorText("error", 65535, EBADF)}));
}

TEST_F(XmlSlaveWriteTest, LimitsItsWritesToThirtySeconds) {
  timeval limit{};
  socklen_t length = sizeof limit;
  ASSERT_EQ(getsockopt(agent.socket(), SOL_SOCKET, SO_SNDTIMEO, &limit, &length), 0);
  EXPECT_EQ(limit.tv_sec, 30);
  EXPECT_EQ(limit.tv_usec, 0);
}

TEST_F(XmlSlaveWriteTest, SendsWithoutDelay) {
  const SocketPair sockets = SocketPair::tcp();
  const XmlSlave relay(sockets.near());
  int on = 0;
  socklen_t length = sizeof on;
  ASSERT_EQ(getsockopt(sockets.near(), IPPROTO_TCP, TCP_NODELAY, &on, &length), 0);
  EXPECT_EQ(on, 1);
}

TEST_F(XmlSlaveWriteTest, ShutsDownAfterAWriteThatTimedOutWithNothingWritten) {
  hurry(bridge.socket());
  fill();
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), -1);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, errorText("error", bridge.socket(), EAGAIN)}));
  EXPECT_TRUE(shutDown(masterSockets));
  EXPECT_FALSE(shutDown(agentSockets));
}

TEST_F(XmlSlaveWriteTest, ShutsDownAfterAShortWriteOfThirtySeconds) {
  hurry(bridge.socket());
  passBetweenReadings(std::chrono::seconds(30));
  std::string text = huge();
  EXPECT_GT(bridge.write(text), 0);
  EXPECT_EQ(log.countContaining("error write failed"), 1);
  EXPECT_TRUE(shutDown(masterSockets));
}

TEST_F(XmlSlaveWriteTest, DoesNotShutDownAfterAShortWriteOfLess) {
  hurry(bridge.socket());
  passBetweenReadings(std::chrono::milliseconds(29999));
  std::string text = huge();
  EXPECT_GT(bridge.write(text), 0);
  EXPECT_EQ(log.countContaining("error write failed"), 1);
  EXPECT_FALSE(shutDown(masterSockets));
}

TEST_F(XmlSlaveWriteTest, DoesNotShutDownAfterAnotherErrorHoweverLate) {
  passBetweenReadings(std::chrono::minutes(1));
  WriteCalls writes;
  writes.answer(-1, EINTR);
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), -1);
  EXPECT_FALSE(shutDown(masterSockets));
}

TEST_F(XmlSlaveWriteTest, DoesNotShutDownAfterACompleteWriteHoweverLate) {
  passBetweenReadings(std::chrono::minutes(1));
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), 6);
  EXPECT_FALSE(shutDown(masterSockets));
}

TEST_F(XmlSlaveWriteTest, StopsTheLoopOnceForAPeerThatReadsNothing) {
  link();
  hurry(bridge.socket());
  fill();
  give(agent, "<a/><b/><c/>");
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(errorText("error", bridge.socket(), EAGAIN),
                                              errorText("error", bridge.socket(), EPIPE),
                                              errorText("error", bridge.socket(), EPIPE)));
}

TEST_F(XmlSlaveWriteTest, OutlivesAPeerThatResets) {
  SocketPair sockets = SocketPair::tcp();
  XmlSlave relay(sockets.near());
  agent.setPeer(&relay);
  sockets.resetFar();
  pollfd gone{sockets.near(), POLLIN, 0};
  ASSERT_EQ(poll(&gone, 1, 10000), 1);
  give(agent, "<a/><b/>");
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(errorText("error", relay.socket(), ECONNRESET),
                                              errorText("error", relay.socket(), EPIPE)));
}

}  // namespace
}  // namespace zell::test
