// SPDX-License-Identifier: Apache-2.0
// The cost of the codec: memory and work are proportional to the received bytes.
#include <string>

#include <gtest/gtest.h>

#include <zell/byte_count_protocol.h>

#include "support/allocation_count.h"
#include "support/sizes.h"
#include "support/socket_pair.h"
#include "support/task_wire.h"

namespace zell {
namespace {

using test::AllocationCount;
using test::frame;
using test::kMiB;

constexpr std::size_t kPacket = 4096;

class FrameMemoryTest : public testing::Test {
 protected:
  // Passes a frame of @p size bytes to the codec in packets, like the server.
  void acceptLarge(std::size_t size) {
    const std::string packet(kPacket, 'x');
    codec_.acceptBytes('\x01' + std::to_string(size) + '\x02');
    for (std::size_t at = 0; at < size; at += kPacket) {
      codec_.acceptBytes(packet);
    }
  }

  test::SocketPair sockets_ = test::SocketPair::local();
  ByteCountProtocol codec_{sockets_.near()};
};

TEST_F(FrameMemoryTest, AHugeAnnouncedLengthAllocatesNothing) {
  const std::string begin =
      "\x01"
      "268435456\x02"
      "ten bytes.";
  const AllocationCount memory;
  codec_.acceptBytes(begin);
  EXPECT_LT(memory.peak(), 1024);
}

TEST_F(FrameMemoryTest, AtMostFourTimesTheReceivedBytesAreReserved) {
  const AllocationCount memory;
  const std::string packet(kPacket, 'x');
  codec_.acceptBytes(
      "\x01"
      "268435456\x02");
  for (std::size_t came = kPacket; came <= 16 * kMiB; came += kPacket) {
    codec_.acceptBytes(packet);
    ASSERT_LT(memory.live(), static_cast<std::ptrdiff_t>(4 * came + 2 * kPacket)) << came;
  }
}

TEST_F(FrameMemoryTest, AShortFirstPacketReservesAtMostFourTimesItself) {
  for (std::size_t size = 64; size <= kPacket; ++size) {
    ByteCountProtocol codec(sockets_.near());
    const std::string packet(size, 'x');
    codec.acceptBytes(
        "\x01"
        "268435456\x02");
    const AllocationCount memory;
    codec.acceptBytes(packet);
    ASSERT_LE(memory.live(), static_cast<std::ptrdiff_t>(4 * size + 16)) << size;
  }
}

TEST_F(FrameMemoryTest, TheBufferOfAWholeMessageFitsIt) {
  const AllocationCount memory;
  acceptLarge(64 * kMiB);
  ASSERT_TRUE(codec_.dataAvailable());
  EXPECT_LT(memory.live(), static_cast<std::ptrdiff_t>(64 * kMiB + 2 * kPacket));
  EXPECT_LT(memory.peak(), static_cast<std::ptrdiff_t>(64 * kMiB * 5 / 4 + 4 * kPacket));
}

TEST_F(FrameMemoryTest, WorkIsLinearInTheMessage) {
  for (const std::size_t size : {1 * kMiB, 4 * kMiB, 16 * kMiB, 64 * kMiB}) {
    const AllocationCount memory;
    acceptLarge(size);
    // All copied bytes were allocated before.
    EXPECT_LT(memory.bytes(), size + size / 2) << size;
    EXPECT_LT(memory.calls(), 20u) << size;
    std::string message;
    ASSERT_TRUE(codec_.recvMessage(message));
    EXPECT_EQ(message.size(), size);
  }
}

TEST_F(FrameMemoryTest, ReturningALargeMessageCopiesNothing) {
  acceptLarge(16 * kMiB);
  std::string message;
  const AllocationCount memory;
  ASSERT_TRUE(codec_.recvMessage(message));
  EXPECT_EQ(memory.calls(), 0u);
  EXPECT_EQ(message.size(), 16 * kMiB);
}

TEST_F(FrameMemoryTest, ALargeBufferIsFreed) {
  const AllocationCount memory;
  for (int round = 0; round < 3; ++round) {
    acceptLarge(4 * kMiB);
    std::string message(2 * kMiB, 'y');
    ASSERT_TRUE(codec_.recvMessage(message));
  }
  EXPECT_LT(memory.live(), static_cast<std::ptrdiff_t>(2 * kPacket));
}

TEST_F(FrameMemoryTest, SmallMessagesCostNoAllocationAfterTheFirstOnes) {
  const std::string bytes = frame(std::string(100, 'x')) + frame(std::string(60, 'y'));
  std::string message;
  AllocationCount memory;
  for (int round = 0; round < 1000; ++round) {
    codec_.acceptBytes(bytes);
    while (codec_.recvMessage(message)) {
    }
    if (round == 10) {
      memory.restart();
    }
  }
  EXPECT_EQ(memory.calls(), 0u);
}

TEST_F(FrameMemoryTest, TheMemoryOfABurstIsFreed) {
  std::string burst;
  for (int i = 0; i < 100000; ++i) {
    burst += frame(std::string(40, 'x'));
  }
  std::string message;
  const AllocationCount memory;
  codec_.acceptBytes(burst);
  while (codec_.recvMessage(message)) {
  }
  EXPECT_LT(memory.live(), 65536);
}

TEST_F(FrameMemoryTest, ABacklogThatIsNeverEmptyDoesNotGrow) {
  std::string message;
  codec_.acceptBytes(frame("one ahead"));
  const AllocationCount memory;
  for (int i = 0; i < 100000; ++i) {
    codec_.acceptBytes(frame("the next"));
    ASSERT_TRUE(codec_.recvMessage(message));
  }
  EXPECT_LT(memory.peak(), 4096);
}

TEST_F(FrameMemoryTest, InputAfterABadFrameIsNotKept) {
  codec_.acceptBytes("x");
  const std::string more(kMiB, '\x01');
  const AllocationCount memory;
  for (int i = 0; i < 10; ++i) {
    codec_.acceptBytes(more);
  }
  EXPECT_EQ(memory.calls(), 0u);
}

TEST_F(FrameMemoryTest, SpareBuffersAreReleasedBetweenMessages) {
  const AllocationCount memory;
  std::string message;
  codec_.acceptBytes(frame("one") + frame("two") + "\x01" + "5\x02th");
  codec_.releaseSpare();
  ASSERT_TRUE(codec_.recvMessage(message) && codec_.recvMessage(message));
  EXPECT_EQ(message, "two");
  codec_.releaseSpare();
  codec_.acceptBytes("ree");
  codec_.releaseSpare();
  ASSERT_TRUE(codec_.recvMessage(message));
  EXPECT_EQ(message, "three");
  codec_.releaseSpare();
  EXPECT_EQ(memory.live(), 0);
  codec_.acceptBytes(frame("four"));
  ASSERT_TRUE(codec_.recvMessage(message));
  EXPECT_EQ(message, "four");
}

}  // namespace
}  // namespace zell
