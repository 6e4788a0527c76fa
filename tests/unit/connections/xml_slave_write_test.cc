// SPDX-License-Identifier: Apache-2.0
// The output of the relay: exactly one write per clause, for any result.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>

#include "support/slow_peer.h"
#include "support/write_calls.h"
#include "unit/connections/relay_fixture.h"
#include "unit/protocol/socket_calls.h"

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
  // More than the buffers of a socket.
  static std::string huge() { return std::string(std::size_t{16} << 20, 'x'); }

  // Sets a short timeout for writes to @p socket.
  static void hurry(int socket) {
    const timeval soon{0, 20000};
    ASSERT_EQ(setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof soon), 0);
  }

  // Advances the clock by @p time with each reading.
  static void passBetweenReadings(std::chrono::nanoseconds time) {
    FakeSystem::instance().clock = [time] { return FakeSystem::instance().now += time; };
  }

  // Fills the buffers of the bridge's socket.
  void fill() {
    const std::string text(4096, 'x');
    while (send(bridge.socket(), text.data(), text.size(), MSG_DONTWAIT) > 0) {
    }
  }

  // Whether the handler's end of @p sockets was shut down in both directions: its peer, after the
  // buffered bytes, and the server read the end of file.
  static bool shutDown(const SocketPair& sockets) {
    (void)sockets.received();
    char byte = 0;
    return sockets.ended() && recv(sockets.near(), &byte, 1, MSG_DONTWAIT) == 0;
  }
};

TEST_F(XmlSlaveWriteTest, AppendsCrLfAndReturnsTheNumberOfBytes) {
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

TEST_F(XmlSlaveWriteTest, LogsAWriteOfZeroBytes) {
  WriteCalls writes;
  writes.answer(0, EPIPE);
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), 0);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, errorText("error eof", bridge.socket(), EPIPE)}));
}

TEST_F(XmlSlaveWriteTest, LogsAShortWriteAndDoesNotContinue) {
  WriteCalls writes;
  writes.answer(5, EINTR);
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), 5);
  EXPECT_THAT(
      log.entries(),
      ElementsAre(LogEntry{LOG_ERR, errorText("error write failed", bridge.socket(), EINTR)}));
  EXPECT_EQ(writes.calls().size(), 1U);
}

TEST_F(XmlSlaveWriteTest, ContinuesWithTheNextClauseAfterAFailure) {
  link();
  WriteCalls writes;
  writes.answer(-1, EIO);
  give(agent, "<a/><b/>");
  EXPECT_EQ(masterSockets.received(), "<b/>\r\n");
  EXPECT_EQ(contentsOf(agent), "");
}

TEST_F(XmlSlaveWriteTest, RefusesAnImpossibleSocketNumber) {
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

TEST_F(XmlSlaveWriteTest, DoesNotShutDownAfterAnEarlierShortWrite) {
  hurry(bridge.socket());
  passBetweenReadings(std::chrono::milliseconds(29999));
  std::string text = huge();
  EXPECT_GT(bridge.write(text), 0);
  EXPECT_EQ(log.countContaining("error write failed"), 1);
  EXPECT_FALSE(shutDown(masterSockets));
}

TEST_F(XmlSlaveWriteTest, DoesNotShutDownAfterAnotherErrorAtAnyTime) {
  passBetweenReadings(std::chrono::minutes(1));
  WriteCalls writes;
  writes.answer(-1, EINTR);
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), -1);
  EXPECT_FALSE(shutDown(masterSockets));
}

TEST_F(XmlSlaveWriteTest, DoesNotShutDownAfterACompleteWriteAtAnyTime) {
  passBetweenReadings(std::chrono::minutes(1));
  std::string text = "<a/>";
  EXPECT_EQ(bridge.write(text), 6);
  EXPECT_FALSE(shutDown(masterSockets));
}

TEST_F(XmlSlaveWriteTest, BlocksTheLoopOnceForAPeerThatReadsNothing) {
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

// A relay to a peer on a slow line, in simulated time.
class SlowRelayTest : public RelayFixture {
 protected:
  using seconds = std::chrono::seconds;

  void begin(SlowPeer& slow) {
    useTimeOf(slow);
    slow.fill();
    log.clear();
  }

  // Thousands of clauses fill the buffer, and each reads the clock. The data of the first ones must
  // be acknowledged before a later one waits.
  void useTimeOf(SlowPeer& slow) {
    FakeSystem::instance().clock = [&, readings = 0]() mutable {
      return ++readings % 512 == 0 ? slow.clock() : std::chrono::nanoseconds(slow.now());
    };
    calls.poll = [&](short events, int timeout) { return slow.wait(events, timeout); };
  }

  // Sends clauses until the relay waits for room.
  void giveUntilOneWaits() {
    const std::size_t before = calls.pollTimeouts.size();
    for (int i = 0; i < 100000 && calls.pollTimeouts.size() == before; ++i) {
      give(agent, "<a>text</a>");
    }
  }

  // More than the socket's buffer holds.
  static std::string manyClauses() {
    std::string clauses;
    for (int i = 0; i < 5000; ++i) {
      clauses += "<a>" + std::to_string(i) + std::string(200, 'x') + "</a>";
    }
    return clauses;
  }

  // The time limit of writes to @p socket, in milliseconds.
  static int limitOf(int socket) {
    timeval limit{};
    socklen_t length = sizeof limit;
    EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, &length), 0);
    return static_cast<int>(limit.tv_sec * 1000 + limit.tv_usec / 1000);
  }

  // Whether the near socket was shut down.
  static bool shutDown(const SlowPeer& slow) {
    char byte = 0;
    return recv(slow.sockets().near(), &byte, 1, MSG_DONTWAIT) == 0;
  }

  SocketCalls calls;
};

TEST_F(SlowRelayTest, AClauseIsSentAsSoonAsThereIsRoom) {
  SlowPeer slow(seconds(20));
  XmlSlave relay(slow.sockets().near());
  begin(slow);
  std::string text = "<a/>";
  EXPECT_EQ(relay.write(text), 6);
  EXPECT_EQ(slow.now().count(), 20000);
  EXPECT_THAT(log.entries(), IsEmpty());
  EXPECT_FALSE(shutDown(slow));
}

TEST_F(SlowRelayTest, AllClausesArriveWholeAndInOrder) {
  SlowPeer slow(seconds(29));
  XmlSlave relay(slow.sockets().near());
  agent.setPeer(&relay);
  begin(slow);
  std::string clauses;
  std::string expected;
  for (int i = 0; i < 5000; ++i) {
    const std::string clause = "<a>" + std::to_string(i) + std::string(100, 'x') + "</a>";
    clauses += clause;
    expected += clause + "\r\n";
  }
  give(agent, clauses);
  EXPECT_THAT(log.entries(), IsEmpty());
  EXPECT_GT(slow.taken().size(), SlowPeer::kStep);
  // Reading makes room for the rest, which arrives some time later.
  ASSERT_EQ(shutdown(slow.sockets().near(), SHUT_WR), 0);
  const std::string got = slow.taken() + slow.sockets().receive(2 * expected.size());
  EXPECT_TRUE(got.substr(got.find('<')) == expected);
}

TEST_F(SlowRelayTest, APeerThatReadsNothingIsGivenUpAfterThirtySeconds) {
  SlowPeer slow(seconds(1));
  slow.stopAt(seconds(0));
  XmlSlave relay(slow.sockets().near());
  begin(slow);
  WriteCalls writes;
  int meanwhile = 0;
  writes.before = [&](int socket) { meanwhile = limitOf(socket); };
  std::string text = "<a/>";
  EXPECT_EQ(relay.write(text), -1);
  EXPECT_EQ(slow.now().count(), 30000);
  EXPECT_GT(meanwhile, 0);
  EXPECT_LT(meanwhile, 100);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, errorText("error", relay.socket(), EAGAIN)}));
  EXPECT_TRUE(shutDown(slow));
}

TEST_F(SlowRelayTest, ManyClausesForAPeerThatReadsNothingWaitOnce) {
  SlowPeer slow(seconds(1));
  slow.stopAt(seconds(0));
  XmlSlave relay(slow.sockets().near());
  agent.setPeer(&relay);
  useTimeOf(slow);
  give(agent, manyClauses());
  EXPECT_EQ(slow.now().count(), 30000);
  const std::string closed = errorText("error", relay.socket(), EPIPE);
  EXPECT_GT(log.countContaining(closed), 0);
  EXPECT_EQ(static_cast<std::size_t>(log.countContaining(closed)) + 1, log.entries().size());
  EXPECT_TRUE(shutDown(slow));
}

TEST_F(SlowRelayTest, WaitsAgainAfterATimeoutOnceThereWasRoom) {
  SlowPeer slow(seconds(31));
  XmlSlave relay(slow.sockets().near());
  agent.setPeer(&relay);
  useTimeOf(slow);
  giveUntilOneWaits();  // its write succeeds: there is room for the last packet
  EXPECT_EQ(slow.now().count(), 30000);
  (void)slow.wait(0, 1000);
  giveUntilOneWaits();
  EXPECT_EQ(slow.now().count(), 31000 + 30000);
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(SlowRelayTest, AClauseWithoutEnoughRoomInTimeIsTruncated) {
  SlowPeer slow(seconds(9));
  XmlSlave relay(slow.sockets().near());
  begin(slow);
  std::string text(150000, 'x');
  errno = 0;
  EXPECT_GT(relay.write(text), 0);
  EXPECT_EQ(slow.now().count(), 30000);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, errorText("error write failed", relay.socket(), 0)}));
  EXPECT_TRUE(shutDown(slow));
}

TEST_F(SlowRelayTest, AClauseOfMoreThanAThirdOfTheBufferWaitsForAllOfItsRoom) {
  SlowPeer slow(seconds(2));
  XmlSlave relay(slow.sockets().near());
  begin(slow);
  std::string text(180000, 'x');
  EXPECT_EQ(relay.write(text), 180002);
  EXPECT_GT(slow.taken().size(), 180000U);
  EXPECT_LT(slow.now(), seconds(30));
}

TEST_F(SlowRelayTest, AClauseAboveTheBufferSizeDoesNotWait) {
  SlowPeer fast(seconds(0));
  XmlSlave relay(fast.sockets().near());
  std::string text(std::size_t{1} << 20, 'x');
  const std::size_t whole = text.size() + 2;
  std::string got;
  std::thread peer([&] { got = fast.sockets().receive(whole); });
  EXPECT_EQ(relay.write(text), static_cast<int>(whole));
  peer.join();
  EXPECT_EQ(got.size(), whole);
  EXPECT_THAT(calls.pollTimeouts, IsEmpty());
}

TEST_F(SlowRelayTest, APeerThatFreesAThirdOfTheBufferAtOnceEndsTheWait) {
  SlowPeer slow(std::chrono::milliseconds(10));
  XmlSlave relay(slow.sockets().near());
  begin(slow);
  std::string text(80000, 'x');
  EXPECT_EQ(relay.write(text), 80002);
  EXPECT_EQ(calls.pollTimeouts, std::vector<int>{1000});
}

TEST_F(SlowRelayTest, OneWriteFollowsTheWaitWithTheRestOfTheLimit) {
  SlowPeer slow(seconds(20));
  XmlSlave relay(slow.sockets().near());
  begin(slow);
  WriteCalls writes;
  int meanwhile = 0;
  writes.before = [&](int socket) { meanwhile = limitOf(socket); };
  std::string text = "<a/>";
  EXPECT_EQ(relay.write(text), 6);
  EXPECT_EQ(writes.calls().size(), 1U);
  EXPECT_EQ(meanwhile, 10000);
  EXPECT_EQ(limitOf(relay.socket()), 30000);
}

TEST_F(SlowRelayTest, ASignalDoesNotEndTheWait) {
  SlowPeer slow(seconds(20));
  XmlSlave relay(slow.sockets().near());
  begin(slow);
  calls.pollAnswers = {-EINTR, -EINTR};
  std::string text = "<a/>";
  EXPECT_EQ(relay.write(text), 6);
  EXPECT_EQ(slow.now().count(), 20000);
}

TEST_F(SlowRelayTest, APeerThatResetsEndsTheWait) {
  SlowPeer slow(seconds(20));
  XmlSlave relay(slow.sockets().near());
  begin(slow);
  calls.poll = [&](short events, int timeout) {
    if (slow.now() == seconds(5)) {
      slow.reset();
    }
    return slow.wait(events, timeout);
  };
  std::string text = "<a/>";
  EXPECT_EQ(relay.write(text), -1);
  EXPECT_EQ(slow.now().count(), 5000);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, errorText("error", relay.socket(), ECONNRESET)}));
}

}  // namespace
}  // namespace zell::test
