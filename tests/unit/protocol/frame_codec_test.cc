// SPDX-License-Identifier: Apache-2.0
// Parsing of frames: messages, and errors that end the connection.
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <syslog.h>

#include <zell/byte_count_protocol.h>

#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/task_wire.h"

namespace zell {
namespace {

using test::frame;
using test::LogCapture;
using test::LogEntry;
using test::SocketPair;

using Messages = std::vector<std::string>;

class FrameCodecTest : public testing::Test {
 protected:
  Messages messages() {
    Messages all;
    std::string message;
    while (codec_.dataAvailable()) {
      EXPECT_TRUE(codec_.recvMessage(message));
      all.push_back(message);
    }
    return all;
  }

  void acceptByteByByte(const std::string& bytes) {
    for (const char byte : bytes) {
      codec_.acceptBytes(std::string(1, byte));
    }
  }

  [[nodiscard]] std::string badFrame(const std::string& what) const {
    return "(PID) acceptBytes: bad frame on socket " + std::to_string(sockets_.near()) + ", " +
           what;
  }

  LogCapture log_;
  SocketPair sockets_ = SocketPair::local();
  ByteCountProtocol codec_{sockets_.near()};
};

TEST_F(FrameCodecTest, HoldsNothingAtFirst) {
  EXPECT_FALSE(codec_.dataAvailable());
}

TEST_F(FrameCodecTest, DoesNotChangeTheStringWithoutAMessage) {
  std::string message = "mine";
  EXPECT_FALSE(codec_.recvMessage(message));
  EXPECT_EQ(message, "mine");
}

TEST_F(FrameCodecTest, ReturnsThePayloadWithoutItsFraming) {
  codec_.acceptBytes(
      "\x01"
      "5\x02"
      "hello");
  std::string message = "what was here before";
  ASSERT_TRUE(codec_.recvMessage(message));
  EXPECT_EQ(message, "hello");
  EXPECT_FALSE(codec_.dataAvailable());
}

TEST_F(FrameCodecTest, NothingIsAvailableUntilTheLastByte) {
  const std::string bytes = frame("0123456789ab");
  for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
    codec_.acceptBytes(bytes.substr(i, 1));
    EXPECT_FALSE(codec_.dataAvailable()) << "after byte " << i;
  }
  codec_.acceptBytes(bytes.substr(bytes.size() - 1));
  EXPECT_EQ(messages(), Messages{"0123456789ab"});
}

TEST_F(FrameCodecTest, TellsTheAnnouncedLengthOnlyWithinAMessage) {
  EXPECT_EQ(codec_.announced(), 0u);
  codec_.acceptBytes(frame("one") + "\x01" + "12");
  EXPECT_EQ(codec_.announced(), 0u);
  codec_.acceptBytes("\x02");
  EXPECT_EQ(codec_.announced(), 12u);
  codec_.acceptBytes("01234567890");
  EXPECT_EQ(codec_.announced(), 12u);
  codec_.acceptBytes("1");
  EXPECT_EQ(codec_.announced(), 0u);
  EXPECT_EQ(messages(), (Messages{"one", "012345678901"}));
}

TEST_F(FrameCodecTest, AnIncompleteMessageCanBeTakenOver) {
  std::string part = "before";
  EXPECT_EQ(codec_.takeIncomplete(part), 0u);
  EXPECT_EQ(part, "");
  codec_.acceptBytes(frame("one") + "\x01" + "10\x02" + "0123");
  EXPECT_EQ(codec_.takeIncomplete(part), 6u);
  EXPECT_EQ(part, "0123");
  codec_.acceptBytes(frame("two"));
  EXPECT_EQ(messages(), (Messages{"one", "two"}));
}

TEST_F(FrameCodecTest, AnEmptyPacketChangesNothing) {
  codec_.acceptBytes(frame("one") + "\x01" + "1");
  codec_.acceptBytes("");
  codec_.acceptBytes("\x02x");
  EXPECT_EQ(messages(), (Messages{"one", "x"}));
}

TEST_F(FrameCodecTest, APacketMayHoldSeveralFrames) {
  codec_.acceptBytes(frame("one") + frame("two") + frame("three"));
  EXPECT_EQ(messages(), (Messages{"one", "two", "three"}));
}

TEST_F(FrameCodecTest, AFrameMayComeInThousandsOfPackets) {
  const std::string payload(5000, 'p');
  acceptByteByByte(frame(payload));
  EXPECT_EQ(messages(), Messages{payload});
}

TEST_F(FrameCodecTest, TheMessagesAreTheSameForASplitAtEveryByte) {
  const std::string bytes = frame("one") + " \r\n" + frame("") + frame(std::string(11, '\x01'));
  const Messages expected = {"one", "", std::string(11, '\x01')};
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    codec_.acceptBytes(bytes.substr(0, cut));
    codec_.acceptBytes(bytes.substr(cut));
    EXPECT_EQ(messages(), expected) << "cut at " << cut;
  }
}

TEST_F(FrameCodecTest, APayloadMayBeEmpty) {
  codec_.acceptBytes(frame("") + frame("") + frame("x"));
  EXPECT_EQ(messages(), (Messages{"", "", "x"}));
}

TEST_F(FrameCodecTest, APayloadMayHoldAnyByte) {
  std::string payload;
  for (int byte = 0; byte < 256; ++byte) {
    payload.push_back(static_cast<char>(byte));
  }
  codec_.acceptBytes(frame(payload));
  EXPECT_EQ(messages(), Messages{payload});
}

TEST_F(FrameCodecTest, BlanksBeforeAFrameAreSkipped) {
  codec_.acceptBytes(" \t\r\n" + frame("one") + "\r\n\r\n" + frame("two") + "   ");
  acceptByteByByte("\t" + frame("three"));
  EXPECT_EQ(messages(), (Messages{"one", "two", "three"}));
  EXPECT_TRUE(log_.entries().empty());
}

TEST_F(FrameCodecTest, BlanksInAPayloadBelongToIt) {
  codec_.acceptBytes(frame(" \r\n") + frame("\t"));
  EXPECT_EQ(messages(), (Messages{" \r\n", "\t"}));
}

TEST_F(FrameCodecTest, MessagesTakenOneByOneKeepTheirOrder) {
  std::string message;
  int next = 0;
  int taken = 0;
  for (int round = 0; round < 300; ++round) {
    for (int i = 0; i < 3; ++i) {
      codec_.acceptBytes(frame(std::to_string(next++)));
    }
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(codec_.recvMessage(message));
      ASSERT_EQ(message, std::to_string(taken++));
    }
  }
  while (codec_.recvMessage(message)) {
    ASSERT_EQ(message, std::to_string(taken++));
  }
  EXPECT_EQ(taken, 900);
}

TEST_F(FrameCodecTest, APartialMessageSurvivesABurstBeforeIt) {
  std::string burst;
  for (int i = 0; i < 500; ++i) {
    burst += frame(std::to_string(i));
  }
  const std::string last = frame("the last one");
  codec_.acceptBytes(burst + last.substr(0, 7));
  EXPECT_EQ(messages().size(), 500u);
  codec_.acceptBytes(last.substr(7) + frame("and another"));
  EXPECT_EQ(messages(), (Messages{"the last one", "and another"}));
}

TEST_F(FrameCodecTest, AcceptsTheLongestCount) {
  codec_.acceptBytes(
      "\x01"
      "268435456\x02"
      "begin");
  EXPECT_TRUE(log_.entries().empty());
  EXPECT_FALSE(codec_.dataAvailable());
}

TEST_F(FrameCodecTest, ABadFrameShutsDownOnlyTheReadingSide) {
  codec_.acceptBytes("GET / HTTP/1.1\r\n");
  char byte = 0;
  EXPECT_EQ(recv(sockets_.near(), &byte, 1, MSG_DONTWAIT), 0);
  EXPECT_TRUE(codec_.sendMessage("an answer"));
  EXPECT_EQ(sockets_.received(), frame("an answer"));
}

TEST_F(FrameCodecTest, ABadFrameOnTcpEndsLaterReads) {
  const SocketPair tcp = SocketPair::tcp();
  ByteCountProtocol codec(tcp.near());
  codec.acceptBytes("\x01-");
  char byte = 0;
  EXPECT_EQ(recv(tcp.near(), &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(FrameCodecTest, WithoutASocketABadFrameIsReportedOnlyByTheError) {
  ByteCountProtocol codec(ByteCountProtocol::kNoSocket);
  codec.acceptBytes(
      "\x01"
      "1\x02"
      "ax");
  std::string message;
  EXPECT_TRUE(codec.recvMessage(message));
  EXPECT_EQ(message, "a");
  EXPECT_EQ(codec.error(), "byte 0x78 where a frame must begin");
  EXPECT_TRUE(log_.entries().empty());
}

TEST_F(FrameCodecTest, AValidStreamHasNoError) {
  codec_.acceptBytes(
      "\x01"
      "1\x02"
      "a");
  EXPECT_EQ(codec_.error(), "");
}

TEST_F(FrameCodecTest, ABadFrameOnAClosedSocketIsOnlyLogged) {
  ByteCountProtocol codec(-1);
  codec.acceptBytes("x");
  EXPECT_EQ(
      log_.entries(),
      (std::vector<LogEntry>{
          {LOG_ERR,
           "(PID) acceptBytes: bad frame on socket -1, byte 0x78 where a frame must begin"}}));
}

TEST_F(FrameCodecTest, MessagesBeforeABadFrameStay) {
  codec_.acceptBytes(frame("one") + frame("two") + "x" + frame("three"));
  EXPECT_EQ(messages(), (Messages{"one", "two"}));
}

TEST_F(FrameCodecTest, NothingAfterABadFrameBecomesAMessage) {
  codec_.acceptBytes("x");
  codec_.acceptBytes(frame("one"));
  acceptByteByByte(frame("two"));
  EXPECT_FALSE(codec_.dataAvailable());
}

TEST_F(FrameCodecTest, ABadFrameIsLoggedOnce) {
  codec_.acceptBytes("x" + frame("one") + "x");
  codec_.acceptBytes("yy");
  EXPECT_EQ(log_.entries(),
            (std::vector<LogEntry>{{LOG_ERR, badFrame("byte 0x78 where a frame must begin")}}));
}

// A stream that is valid up to its last byte, and the log line about that byte.
struct BadStream {
  const char* name;
  std::string bytes;
  std::string what;
};

std::ostream& operator<<(std::ostream& out, const BadStream& bad) {
  return out << bad.what;
}

class BadFrameTest : public FrameCodecTest, public testing::WithParamInterface<BadStream> {};

TEST_P(BadFrameTest, IsDetectedAtTheFirstWrongByteAndNotBefore) {
  const BadStream& bad = GetParam();
  acceptByteByByte(frame("before"));
  acceptByteByByte(bad.bytes.substr(0, bad.bytes.size() - 1));
  EXPECT_TRUE(log_.entries().empty());
  acceptByteByByte(bad.bytes.substr(bad.bytes.size() - 1));
  EXPECT_EQ(log_.entries(), (std::vector<LogEntry>{{LOG_ERR, badFrame(bad.what)}}));
  EXPECT_EQ(messages(), Messages{"before"});
}

TEST_P(BadFrameTest, IsDetectedInOnePacket) {
  const BadStream& bad = GetParam();
  codec_.acceptBytes(frame("before") + bad.bytes + frame("after"));
  EXPECT_EQ(log_.entries(), (std::vector<LogEntry>{{LOG_ERR, badFrame(bad.what)}}));
  EXPECT_EQ(messages(), Messages{"before"});
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, BadFrameTest,
    testing::Values(BadStream{"Letter", "S", "byte 0x53 where a frame must begin"},
                    BadStream{"Digit", "1", "byte 0x31 where a frame must begin"},
                    BadStream{"CountEnd", "\x02", "byte 0x02 where a frame must begin"},
                    BadStream{"ZeroByte", std::string(1, '\0'),
                              "byte 0x00 where a frame must begin"},
                    BadStream{"HighByte", "\xff", "byte 0xff where a frame must begin"},
                    BadStream{"VerticalTab", " \v", "byte 0x0b where a frame must begin"},
                    BadStream{"FormFeed", "\f", "byte 0x0c where a frame must begin"},
                    BadStream{"EmptyCount", "\x01\x02", "an empty count"},
                    BadStream{"TwoStarts", "\x01\x01", "byte 0x01 in a count"},
                    BadStream{"Minus", "\x01-", "byte 0x2d in a count"},
                    BadStream{"Plus", "\x01+", "byte 0x2b in a count"},
                    BadStream{"BlankBeforeCount", "\x01 ", "byte 0x20 in a count"},
                    BadStream{"BlankInCount",
                              "\x01"
                              "12 ",
                              "byte 0x20 in a count"},
                    BadStream{"Hex",
                              "\x01"
                              "1f",
                              "byte 0x66 in a count"},
                    BadStream{"Slash", "\x01/", "byte 0x2f in a count"},
                    BadStream{"Colon",
                              "\x01"
                              "3:",
                              "byte 0x3a in a count"},
                    BadStream{"LeadingZero",
                              "\x01"
                              "01",
                              "a count with a leading zero"},
                    BadStream{"TwoZeros",
                              "\x01"
                              "00",
                              "a count with a leading zero"},
                    BadStream{"OneAbove",
                              "\x01"
                              "268435457",
                              "a count above 268435456"},
                    BadStream{"NineNines",
                              "\x01"
                              "999999999",
                              "a count above 268435456"},
                    BadStream{"TenDigits",
                              "\x01"
                              "1000000000",
                              "a count of more than 9 digits"}),
    [](const auto& kind) { return std::string(kind.param.name); });

}  // namespace
}  // namespace zell
