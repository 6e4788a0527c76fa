// SPDX-License-Identifier: Apache-2.0
// For any stream and any split into packets, the codec finds the same messages as a simple parser
// of the whole stream.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zell/byte_count_protocol.h>

#include "protocol/protocol.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/task_wire.h"

namespace zell {
namespace {

using test::frame;

using Random = std::mt19937;

std::size_t upTo(Random& random, std::size_t most) {
  return std::uniform_int_distribution<std::size_t>(0, most)(random);
}

struct Reading {
  std::vector<std::string> messages;
  bool bad = false;
  bool operator==(const Reading& other) const {
    return messages == other.messages && bad == other.bad;
  }
};

std::ostream& operator<<(std::ostream& out, const Reading& reading) {
  out << (reading.bad ? "bad after " : "good, ") << reading.messages.size() << " messages";
  for (const std::string& message : reading.messages) {
    out << " [" << testing::PrintToString(message) << ']';
  }
  return out;
}

bool isPrefixOfACount(const std::string& digits) {
  const bool allDigits =
      std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
  return allDigits && digits.size() <= 9 && (digits.size() < 2 || digits[0] != '0') &&
         (digits.empty() || std::stoul(digits) <= kMaxFramePayload);
}

// A reference parser of the whole stream, without regard to speed.
Reading readWhole(const std::string& stream) {
  Reading reading;
  std::size_t at = 0;
  while (true) {
    at = std::min(stream.find_first_not_of(" \t\r\n", at), stream.size());
    if (at == stream.size()) {
      return reading;
    }
    const std::size_t end = std::min(stream.find('\x02', at), stream.size());
    const std::string count = stream.substr(at + 1, end - at - 1);
    reading.bad =
        stream[at] != '\x01' || !isPrefixOfACount(count) || (end != stream.size() && count.empty());
    if (reading.bad || end == stream.size() || stream.size() - end - 1 < std::stoul(count)) {
      return reading;
    }
    reading.messages.push_back(stream.substr(end + 1, std::stoul(count)));
    at = end + 1 + std::stoul(count);
  }
}

// The result of the codec for @p stream in packets of up to @p most bytes.
Reading readInCuts(Random& random, const std::string& stream, std::size_t most) {
  test::LogCapture log;
  const test::SocketPair sockets = test::SocketPair::local();
  ByteCountProtocol codec(sockets.near());
  Reading reading;
  std::string message;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t length = upTo(random, most);
    codec.acceptBytes(stream.substr(at, length));
    at += length;
    const bool takeNow = upTo(random, 2) != 0;
    while (takeNow && codec.recvMessage(message)) {
      reading.messages.push_back(message);
    }
  }
  while (codec.recvMessage(message)) {
    reading.messages.push_back(message);
  }
  reading.bad = !log.entries().empty();
  return reading;
}

std::string randomBytes(Random& random, std::size_t length) {
  std::string bytes;
  for (std::size_t i = 0; i < length; ++i) {
    bytes.push_back(static_cast<char>(upTo(random, 255)));
  }
  return bytes;
}

std::string randomStream(Random& random) {
  const char blanks[] = {' ', '\t', '\r', '\n'};
  std::string stream;
  for (std::size_t frames = upTo(random, 12); frames > 0; --frames) {
    while (upTo(random, 3) == 0) {
      stream.push_back(blanks[upTo(random, 3)]);
    }
    stream += frame(randomBytes(random, upTo(random, upTo(random, 5) == 0 ? 3000 : 30)));
  }
  return stream;
}

TEST(FrameCodecPropertyTest, AnySplitGivesTheSameMessages) {
  for (unsigned seed = 1; seed <= 1500; ++seed) {
    Random random(seed);
    const std::string stream = randomStream(random);
    const Reading expected = readWhole(stream);
    ASSERT_FALSE(expected.bad) << "seed " << seed;
    ASSERT_EQ(readInCuts(random, stream, 1 + upTo(random, 400)), expected) << "seed " << seed;
  }
}

TEST(FrameCodecPropertyTest, ADamagedStreamGivesNothingAfterTheDamage) {
  for (unsigned seed = 1; seed <= 3000; ++seed) {
    Random random(seed);
    std::string stream = randomStream(random);
    for (std::size_t changes = 1 + upTo(random, 2); changes > 0 && !stream.empty(); --changes) {
      stream[upTo(random, stream.size() - 1)] = static_cast<char>(upTo(random, 255));
    }
    ASSERT_EQ(readInCuts(random, stream, 1 + upTo(random, 100)), readWhole(stream))
        << "seed " << seed;
  }
}

TEST(FrameCodecPropertyTest, AnySequenceOfFramingBytesIsParsedByTheRules) {
  const std::string alphabet = std::string(
      "\x01\x01\x01\x02\x02\x02"
      "0012345689 \r\nx");
  for (unsigned seed = 1; seed <= 20000; ++seed) {
    Random random(seed);
    std::string stream;
    for (std::size_t length = upTo(random, 24); length > 0; --length) {
      stream.push_back(alphabet[upTo(random, alphabet.size() - 1)]);
    }
    ASSERT_EQ(readInCuts(random, stream, 1 + upTo(random, 5)), readWhole(stream))
        << "seed " << seed << ' ' << testing::PrintToString(stream);
  }
}

}  // namespace
}  // namespace zell
