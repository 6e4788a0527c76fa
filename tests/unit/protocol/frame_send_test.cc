// SPDX-License-Identifier: Apache-2.0
// Sending of frames: complete, in the minimum number of calls, and never to a lost peer.
#include <cerrno>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>

#include <zell/byte_count_protocol.h>

#include "fakes/system/fake_system.h"
#include "protocol/frame_sender.h"
#include "protocol/protocol.h"
#include "socket_calls.h"
#include "support/log_capture.h"
#include "support/sizes.h"
#include "support/slow_peer.h"
#include "support/socket_pair.h"
#include "support/task_wire.h"

namespace zell {
namespace {

using test::FakeSystem;
using test::frame;
using test::kMiB;
using test::LogCapture;
using test::LogEntry;
using test::SlowPeer;
using test::SocketCalls;
using test::SocketPair;

// Payload bytes that identify their position.
std::string patterned(std::size_t length) {
  std::string bytes(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<char>(i * 2654435761u >> 24);
  }
  return bytes;
}

// More bytes than a test can allocate; they are never read.
class HugePayload {
 public:
  explicit HugePayload(std::size_t length)
      : length_(length),
        bytes_(
            mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {}
  ~HugePayload() { munmap(bytes_, length_); }
  HugePayload(const HugePayload&) = delete;
  HugePayload& operator=(const HugePayload&) = delete;
  [[nodiscard]] std::string_view view() const {
    return {static_cast<const char*>(bytes_), length_};
  }

 private:
  std::size_t length_;
  void* bytes_;
};

class FrameSendTest : public testing::Test {
 protected:
  FrameSendTest() {
    FakeSystem::instance().reset();
    FakeSystem::instance().clock = [this] {
      ++clockCalls_;
      now_ += clockStep_;
      return now_;
    };
  }
  ~FrameSendTest() override { FakeSystem::instance().reset(); }

  [[nodiscard]] std::vector<LogEntry> sendFailure(const std::string& error) const {
    return {
        {LOG_ERR, "(PID) sendMessage: socket " + std::to_string(sockets_.near()) + ", " + error}};
  }

  // Whether both directions of the near socket are shut down.
  [[nodiscard]] bool isShutDown() const {
    char byte = 0;
    return recv(sockets_.near(), &byte, 1, MSG_DONTWAIT) == 0 &&
           send(sockets_.near(), "x", 1, MSG_NOSIGNAL | MSG_DONTWAIT) == -1 && errno == EPIPE;
  }

  int clockCalls_ = 0;
  std::chrono::nanoseconds now_{0};
  std::chrono::seconds clockStep_{0};
  LogCapture log_;
  SocketCalls calls_;
  SocketPair sockets_ = SocketPair::local();
  ByteCountProtocol codec_{sockets_.near()};
};

TEST_F(FrameSendTest, ASmallReplyCostsOneCallWithoutReadingTheClock) {
  EXPECT_TRUE(codec_.sendMessage("a small reply"));
  EXPECT_EQ(sockets_.received(), frame("a small reply"));
  EXPECT_EQ(calls_.sends, 1);
  EXPECT_TRUE(calls_.pollTimeouts.empty());
  EXPECT_EQ(clockCalls_, 0);
  EXPECT_TRUE(log_.entries().empty());
}

TEST_F(FrameSendTest, TheCountIsTheLengthInDecimal) {
  for (const std::size_t length : {0u, 1u, 9u, 10u, 99u, 100u, 4096u, 65536u, 99999u, 100000u}) {
    const std::string payload = patterned(length);
    EXPECT_TRUE(codec_.sendMessage(payload));
    EXPECT_EQ(sockets_.received(), frame(payload)) << length;
  }
}

TEST_F(FrameSendTest, PartialSendsAreContinued) {
  const std::string payload = patterned(40);
  for (std::size_t most = 1; most <= frame(payload).size(); ++most) {
    calls_.sendAtMost = most;
    EXPECT_TRUE(codec_.sendMessage(payload));
    EXPECT_EQ(sockets_.received(), frame(payload)) << most;
  }
}

TEST_F(FrameSendTest, SeparatePartsAreOneFrame) {
  EXPECT_TRUE(codec_.sendMessage("head ", "and body ", "and tail"));
  EXPECT_EQ(sockets_.received(), frame("head and body and tail"));
  EXPECT_EQ(calls_.sends, 1);
}

TEST_F(FrameSendTest, PartsMayBeEmpty) {
  EXPECT_TRUE(codec_.sendMessage("", "body", ""));
  EXPECT_TRUE(codec_.sendMessage("", "", "tail"));
  EXPECT_EQ(sockets_.received(), frame("body") + frame("tail"));
}

TEST_F(FrameSendTest, PartsSentInPiecesStayInOrder) {
  const std::string whole = frame("head and body and tail");
  for (std::size_t most = 1; most <= whole.size(); ++most) {
    calls_.sendAtMost = most;
    EXPECT_TRUE(codec_.sendMessage("head ", "and body ", "and tail"));
    EXPECT_EQ(sockets_.received(), whole) << most;
  }
}

TEST_F(FrameSendTest, PartsThatAreTooLongTogetherAreNotSent) {
  const HugePayload half(kMaxFramePayload / 2);
  EXPECT_FALSE(codec_.sendMessage(half.view(), half.view(), "x"));
  EXPECT_EQ(
      log_.entries(),
      (std::vector<LogEntry>{{LOG_ERR, "(PID) sendMessage: message too long, 268435457 bytes"}}));
  EXPECT_EQ(calls_.sends, 0);
}

TEST_F(FrameSendTest, ASignalWhileSendingIsNotAnError) {
  calls_.sendErrors = {EINTR, EINTR};
  EXPECT_TRUE(codec_.sendMessage("text"));
  EXPECT_EQ(sockets_.received(), frame("text"));
}

TEST_F(FrameSendTest, ASignalWhileWaitingIsNotAnError) {
  calls_.sendErrors = {EAGAIN, EAGAIN};
  calls_.pollAnswers = {-EINTR, -EINTR};
  EXPECT_TRUE(codec_.sendMessage("text"));
  EXPECT_EQ(sockets_.received(), frame("text"));
}

TEST_F(FrameSendTest, AFullBufferIsWaitedFor) {
  calls_.sendErrors = {EAGAIN};
  EXPECT_TRUE(codec_.sendMessage("text"));
  EXPECT_EQ(sockets_.received(), frame("text"));
  EXPECT_EQ(calls_.pollTimeouts, std::vector<int>{30000});
}

TEST_F(FrameSendTest, AWaitThatFailsIsAnError) {
  calls_.sendErrors = {EAGAIN};
  calls_.pollAnswers = {-ENOMEM};
  EXPECT_FALSE(codec_.sendMessage("text"));
  EXPECT_EQ(log_.entries(), sendFailure("Cannot allocate memory"));
}

TEST_F(FrameSendTest, NeverRaisesASignal) {
  EXPECT_TRUE(codec_.sendMessage("text"));
  EXPECT_NE(calls_.sendFlags & MSG_NOSIGNAL, 0);
}

TEST_F(FrameSendTest, AClosedPeerIsGivenUpImmediately) {
  sockets_.closeFar();
  EXPECT_FALSE(codec_.sendMessage("text"));
  EXPECT_EQ(log_.entries(), sendFailure("Broken pipe"));
  EXPECT_EQ(calls_.sends, 1);
  EXPECT_TRUE(isShutDown());
}

TEST_F(FrameSendTest, APeerThatResetsIsGivenUpImmediately) {
  SocketPair tcp = SocketPair::tcp();
  ByteCountProtocol codec(tcp.near());
  tcp.resetFar();
  EXPECT_FALSE(codec.sendMessage("text"));
  EXPECT_EQ(
      log_.entries(),
      (std::vector<LogEntry>{{LOG_ERR, "(PID) sendMessage: socket " + std::to_string(tcp.near()) +
                                           ", Connection reset by peer"}}));
}

TEST_F(FrameSendTest, ANumberThatIsNotASocketIsLogged) {
  ByteCountProtocol codec(-1);
  EXPECT_FALSE(codec.sendMessage("text"));
  EXPECT_EQ(log_.texts(),
            std::vector<std::string>{"(PID) sendMessage: socket -1, Bad file descriptor"});
}

TEST_F(FrameSendTest, EveryMessageAfterALostPeerIsLoggedAndDropped) {
  sockets_.closeFar();
  EXPECT_FALSE(codec_.sendMessage("one"));
  EXPECT_FALSE(codec_.sendMessage("two"));
  EXPECT_EQ(log_.texts(LOG_ERR).size(), 2u);
}

TEST_F(FrameSendTest, APeerThatReadsNothingIsGivenUpAfterThirtySeconds) {
  calls_.sendErrors = {EAGAIN};
  calls_.pollAnswers = {0};
  EXPECT_FALSE(codec_.sendMessage("text"));
  EXPECT_EQ(calls_.pollTimeouts, std::vector<int>{30000});
  EXPECT_EQ(log_.entries(), sendFailure("Connection timed out"));
  EXPECT_TRUE(isShutDown());
}

TEST_F(FrameSendTest, WaitingWithoutProgressAddsUp) {
  clockStep_ = std::chrono::seconds(10);
  calls_.sendErrors.assign(100, EAGAIN);
  calls_.pollAnswers.assign(100, 1);
  EXPECT_FALSE(codec_.sendMessage("text"));
  EXPECT_EQ(calls_.pollTimeouts, (std::vector<int>{30000, 20000, 10000}));
  EXPECT_EQ(log_.entries(), sendFailure("Connection timed out"));
}

TEST_F(FrameSendTest, AFractionOfAMillisecondIsRoundedUp) {
  std::deque<std::chrono::nanoseconds> shown = {
      std::chrono::seconds(0), std::chrono::microseconds(29999500), std::chrono::seconds(30)};
  FakeSystem::instance().clock = [&] {
    const std::chrono::nanoseconds now = shown.front();
    shown.pop_front();
    return now;
  };
  calls_.sendErrors.assign(100, EAGAIN);
  calls_.pollAnswers.assign(100, 1);
  EXPECT_FALSE(codec_.sendMessage("text"));
  EXPECT_EQ(calls_.pollTimeouts, (std::vector<int>{30000, 1}));
  EXPECT_EQ(log_.entries(), sendFailure("Connection timed out"));
}

TEST_F(FrameSendTest, ASteadyPeerHasOneSecondMoreForEachMebibyte) {
  clockStep_ = std::chrono::seconds(10);
  calls_.sendAtMost = 1;
  calls_.pollAnswers.assign(100, 1);
  EXPECT_FALSE(codec_.sendMessage(std::string(8 * kMiB, 'x')));
  EXPECT_EQ(calls_.pollTimeouts, (std::vector<int>{30000, 28000, 18000, 8000}));
  EXPECT_EQ(log_.entries(), sendFailure("Connection timed out"));
  EXPECT_EQ(sockets_.received().size(), 5u);
}

TEST_F(FrameSendTest, ProgressRestartsTheThirtySeconds) {
  clockStep_ = std::chrono::seconds(10);
  calls_.sendErrors = {0, EAGAIN, EAGAIN, 0, EAGAIN, EAGAIN, EAGAIN};
  calls_.sendAtMost = 1;
  calls_.pollAnswers.assign(100, 1);
  EXPECT_FALSE(codec_.sendMessage(std::string(90 * kMiB, 'x')));
  EXPECT_EQ(calls_.pollTimeouts, (std::vector<int>{30000, 20000, 10000, 30000, 20000, 10000}));
}

TEST_F(FrameSendTest, APeerThatNeverReadsIsGivenUpInRealTime) {
  const SendLimits limits{std::chrono::milliseconds(30), std::chrono::milliseconds(30),
                          std::chrono::milliseconds(0)};
  EXPECT_FALSE(sendFrame(sockets_.near(), {std::string(4 * kMiB, 'x')}, limits));
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(FrameSendTest, APayloadAboveTheLimitIsNotSent) {
  const HugePayload payload(kMaxFramePayload + 1);
  EXPECT_FALSE(codec_.sendMessage(payload.view()));
  EXPECT_EQ(
      log_.entries(),
      (std::vector<LogEntry>{{LOG_ERR, "(PID) sendMessage: message too long, 268435457 bytes"}}));
  EXPECT_EQ(calls_.sends, 0);
  EXPECT_FALSE(isShutDown());
}

TEST_F(FrameSendTest, APayloadOfTheLimitIsAccepted) {
  const HugePayload payload(kMaxFramePayload);
  calls_.sendAtMost = 11;
  calls_.sendErrors = {0, ECONNRESET};
  EXPECT_FALSE(codec_.sendMessage(payload.view()));
  EXPECT_EQ(sockets_.received(),
            "\x01"
            "268435456\x02");
}

// A peer that acknowledges too few bytes for the kernel to report the socket as writable.
class SlowPeerTest : public testing::Test {
 protected:
  using seconds = std::chrono::seconds;
  using milliseconds = std::chrono::milliseconds;

  ~SlowPeerTest() override { FakeSystem::instance().reset(); }

  // Sends @p payload to @p peer in simulated time.
  bool send(SlowPeer& peer, const std::string& payload, const SendLimits& limits = {}) {
    FakeSystem::instance().clock = [&] { return peer.clock(); };
    calls_.poll = [&](short events, int timeout) { return peer.wait(events, timeout); };
    return sendFrame(peer.sockets().near(), {payload}, limits);
  }

  static SendLimits wholeOf(seconds whole) { return {seconds(30), whole, seconds(0)}; }

  SocketCalls calls_;
};

TEST_F(SlowPeerTest, ReadingALittleContinuouslyHasTheWholeTime) {
  SlowPeer peer(seconds(20));
  EXPECT_FALSE(send(peer, std::string(16 * kMiB, 'x')));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(peer.now().count(), 46000);
}

TEST_F(SlowPeerTest, ReadingALittleAndThenNothingIsGivenUpAfterTheLastRead) {
  SlowPeer peer(seconds(11));
  peer.stopAt(seconds(50));
  EXPECT_FALSE(send(peer, std::string(4 * kMiB, 'x'), wholeOf(seconds(1000))));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(peer.lastStep().count(), 44000);
  EXPECT_EQ(peer.now().count(), 44000 + 30000);
}

TEST_F(SlowPeerTest, ReadingNothingIsGivenUpAfterTheStall) {
  SlowPeer peer(seconds(1));
  peer.stopAt(seconds(0));
  EXPECT_FALSE(send(peer, std::string(16 * kMiB, 'x')));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(peer.now().count(), 30000);
}

TEST_F(SlowPeerTest, ReadingSlowlyButInTimeGetsEverything) {
  SlowPeer peer(seconds(20));
  const std::string payload = patterned(2 * kMiB);
  ASSERT_TRUE(send(peer, payload, wholeOf(seconds(2000))));
  const std::string rest = frame(payload).substr(peer.taken().size());
  EXPECT_TRUE(peer.taken() + peer.sockets().receive(rest.size()) == frame(payload));
}

TEST_F(SlowPeerTest, TheEndIsSentAsSoonAsThereIsRoomForIt) {
  SlowPeer peer(seconds(20));
  const std::string payload(kMiB, 'x');
  ASSERT_TRUE(send(peer, payload, wholeOf(seconds(2000))));
  // The socket's send buffer holds the rest.
  EXPECT_GT(frame(payload).size() - peer.taken().size(), 5 * SlowPeer::kStep);
}

TEST_F(SlowPeerTest, AReadBetweenTwoPollsIsDetectedAtTheNext) {
  SlowPeer peer(milliseconds(20900));
  peer.stopAt(seconds(21));
  EXPECT_FALSE(send(peer, std::string(4 * kMiB, 'x'), wholeOf(seconds(1000))));
  EXPECT_EQ(peer.now().count(), 21000 + 30000);
}

TEST_F(SlowPeerTest, AReadAtTheLastMomentCounts) {
  SlowPeer peer(seconds(30));
  peer.stopAt(seconds(31));
  EXPECT_FALSE(send(peer, std::string(4 * kMiB, 'x'), wholeOf(seconds(1000))));
  EXPECT_EQ(peer.now().count(), 60000);
}

TEST_F(SlowPeerTest, AClockThatStandsStillDelaysNothing) {
  SlowPeer peer(seconds(1));
  peer.stopAt(seconds(0));
  FakeSystem::instance().clock = [&] {
    peer.settle();
    return std::chrono::nanoseconds(0);
  };
  calls_.poll = [&](short events, int timeout) { return peer.wait(events, timeout); };
  EXPECT_FALSE(sendFrame(peer.sockets().near(), {std::string(kMiB, 'x')}));
  EXPECT_EQ(peer.now().count(), 30000);
}

TEST_F(SlowPeerTest, TheLimitsApplyInRealTime) {
  const SocketPair tcp = SocketPair::tcp();
  const SendLimits limits{milliseconds(30), milliseconds(30), milliseconds(0)};
  EXPECT_FALSE(sendFrame(tcp.near(), {std::string(64 * kMiB, 'x')}, limits));
  EXPECT_EQ(errno, ETIMEDOUT);
}

// Modes of a socket on which a frame is sent.
enum class Mode { blocking, withSendTimeout, nonBlocking };

class LargeFrameTest : public FrameSendTest, public testing::WithParamInterface<Mode> {
 protected:
  static void setUp(int socket) {
    if (GetParam() == Mode::withSendTimeout) {
      const timeval limit{0, 1000};
      ASSERT_EQ(setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit), 0);
    } else if (GetParam() == Mode::nonBlocking) {
      ASSERT_EQ(fcntl(socket, F_SETFL, O_NONBLOCK), 0);
    }
  }
};

TEST_P(LargeFrameTest, ArrivesWhole) {
  const SocketPair tcp = SocketPair::tcp();
  setUp(tcp.near());
  const std::string payload = patterned(64 * kMiB);
  const std::string expected = frame(payload);
  std::string got;
  std::thread peer([&] { got = tcp.receive(expected.size()); });
  ByteCountProtocol codec(tcp.near());
  EXPECT_TRUE(codec.sendMessage(payload));
  peer.join();
  EXPECT_TRUE(got == expected);
  EXPECT_TRUE(log_.entries().empty());
}

TEST_P(LargeFrameTest, IsGivenUpWhenThePeerClosesDuringTheSend) {
  SocketPair tcp = SocketPair::tcp();
  setUp(tcp.near());
  std::thread peer([&] {
    (void)tcp.receive(kMiB);
    tcp.resetFar();
  });
  ByteCountProtocol codec(tcp.near());
  EXPECT_FALSE(codec.sendMessage(std::string(64 * kMiB, 'x')));
  peer.join();
  EXPECT_EQ(log_.countContaining("sendMessage: socket " + std::to_string(tcp.near()) + ", "), 1);
  EXPECT_EQ(log_.countContaining("timed out"), 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, LargeFrameTest,
                         testing::Values(Mode::blocking, Mode::withSendTimeout, Mode::nonBlocking));

TEST(FrameHeadTest, PrecedesThePayload) {
  EXPECT_EQ(frameHead(0),
            "\x01"
            "0\x02");
  EXPECT_EQ(frameHead(12),
            "\x01"
            "12\x02");
  EXPECT_EQ(frameHead(268435456),
            "\x01"
            "268435456\x02");
}

}  // namespace
}  // namespace zell
