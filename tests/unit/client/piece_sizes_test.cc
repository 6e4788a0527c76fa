// SPDX-License-Identifier: Apache-2.0
// The sizes of the pieces of a large file, by given times of the device's answers.
#include "client/transfer/push/piece_sizes.h"

#include <chrono>
#include <cstddef>
#include <cstdint>

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include "client/transfer/push/device_memory.h"

namespace runel {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::size_t kKib = 1024;
constexpr std::size_t kMib = 1024 * kKib;

// A device that takes a number of bytes per millisecond.
class PieceSizesTest : public ::testing::Test {
 protected:
  PieceSizesTest() {
    sizes.setDeviceMemory(1024 * kMib);
    sizes.begin(now);
  }
  // Answers pieces of the chosen sizes until @p bytes are answered.
  void answer(PieceSizes& by, std::size_t bytes) {
    for (std::size_t done = 0; done < bytes;) {
      const std::size_t size = by.next();
      now += microseconds(1000 * size / perMillisecond);
      by.answered(size, now);
      done += size;
    }
  }

  std::size_t perMillisecond = 256 * kKib;
  PieceSizes sizes{256 * kMib};
  PieceSizes::Clock::time_point now;
};

TEST_F(PieceSizesTest, TheFirstPieceIsSmall) {
  EXPECT_EQ(sizes.next(), 256 * kKib);
  EXPECT_EQ(sizes.rate(), 0);
}

TEST_F(PieceSizesTest, APieceHasAtMost32Mebibytes) {
  answer(sizes, 64 * kMib);
  EXPECT_EQ(sizes.next(), 32 * kMib);
}

TEST_F(PieceSizesTest, PiecesForAFileInMemoryAreSmall) {
  sizes.setInMemory(true);
  answer(sizes, 64 * kMib);
  EXPECT_EQ(sizes.next(), 512 * kKib);
}

TEST_F(PieceSizesTest, APieceIsWhatTheDeviceTakesInASecond) {
  perMillisecond = 2 * kKib;
  answer(sizes, 4 * kMib);
  EXPECT_EQ(sizes.next(), 1984 * kKib) << "31 blocks are the most in 2000 KiB";
  perMillisecond = 10;
  answer(sizes, 2 * kMib);
  EXPECT_EQ(sizes.next(), 64 * kKib) << "a piece has at least one block";
}

TEST_F(PieceSizesTest, APieceHasAtMostAnEighthOfTheDevicesMemory) {
  sizes.setDeviceMemory(24 * kMib);
  answer(sizes, 64 * kMib);
  EXPECT_EQ(sizes.next(), 3 * kMib);
  sizes.setDeviceMemory(0);
  EXPECT_EQ(sizes.next(), 64 * kKib) << "a device without memory gets the smallest";
}

TEST_F(PieceSizesTest, APieceHasAtMostHalfOfTheMemoryHere) {
  PieceSizes little(kMib);
  little.setDeviceMemory(1024 * kMib);
  answer(little, 64 * kMib);
  EXPECT_EQ(little.next(), 512 * kKib);
  EXPECT_EQ(little.window(), kMib);
}

TEST_F(PieceSizesTest, ADeviceOfUnknownMemoryGetsAtMost8Mebibytes) {
  PieceSizes unknown(256 * kMib);
  answer(unknown, 64 * kMib);
  EXPECT_EQ(unknown.next(), 8 * kMib);
}

TEST_F(PieceSizesTest, AnswersThatArriveTogetherAreNoError) {
  sizes.answered(256 * kKib, now);
  EXPECT_EQ(sizes.next(), 32 * kMib);
  EXPECT_GT(sizes.rate(), 0);
}

TEST_F(PieceSizesTest, TheWindowGrowsWithTheAnsweredBytes) {
  sizes.setInMemory(true);
  EXPECT_EQ(sizes.window(), 512 * kKib);
  answer(sizes, 768 * kKib);
  EXPECT_EQ(sizes.window(), 2 * kMib) << "768 KiB are answered";
  answer(sizes, 64 * kMib);
  EXPECT_EQ(sizes.window(), 4 * kMib);
  sizes.begin(now);
  EXPECT_EQ(sizes.window(), kMib) << "the next file: two pieces";
}

TEST_F(PieceSizesTest, TheWindowCoversTheRoundTrip) {
  sizes.setInMemory(true);
  sizes.setRoundTrip(milliseconds(10));
  answer(sizes, 64 * kMib);
  EXPECT_NEAR(static_cast<double>(sizes.window()), 4 * kMib + 2 * 10 * 256 * kKib, kKib);
  sizes.setRoundTrip(milliseconds(10000));
  EXPECT_EQ(sizes.window(), 64 * kMib);
}

TEST_F(PieceSizesTest, TheWindowHasTwoLargePieces) {
  answer(sizes, 64 * kMib);
  EXPECT_EQ(sizes.window(), 64 * kMib);
}

TEST(AvailableMemoryTest, FindsItsLine) {
  EXPECT_EQ(availableMemory("MemFree: 1 kB\nMemAvailable:   20 kB\nBuffers: 3 kB\n"), 20480U);
  EXPECT_EQ(availableMemory("MemAvailable:0"), 0U);
}

TEST(AvailableMemoryTest, IsUnknownForAnyOtherText) {
  for (const char* text :
       {"", "MemAvailable:", "MemAvailable: ", "MemAvailable: x kB", "NoMemAvailable: 20 kB",
        "MemAvailable: -1 kB", "MemAvailable: 99999999999999999999 kB",
        "MemAvailable: 18014398509481985 kB", "MemFree: 20 kB"}) {
    EXPECT_FALSE(availableMemory(text)) << text;
  }
}

constexpr char kMounts[] =
    "22 27 0:20 / /sys rw,nosuid - sysfs sysfs rw\n"
    "27 1 254:1 / / rw,relatime shared:1 master:2 - ext4 /dev/vda1 rw\n"
    "31 27 0:24 / /run rw,nosuid shared:5 - tmpfs tmpfs rw,size=9k\n"
    "32 27 0:25 / /old rw - ramfs none rw\n";

TEST(IsInMemoryTest, KnowsTheFileSystemsByTheirNumbers) {
  EXPECT_TRUE(isInMemory(kMounts, makedev(0, 24)));
  EXPECT_TRUE(isInMemory(kMounts, makedev(0, 25)));
  EXPECT_FALSE(isInMemory(kMounts, makedev(254, 1)));
  EXPECT_FALSE(isInMemory(kMounts, makedev(0, 20)));
  EXPECT_FALSE(isInMemory(kMounts, makedev(0, 2))) << "is not listed";
}

TEST(IsInMemoryTest, IsNotForAnyOtherText) {
  for (const char* text : {"", "\n\n", " ", "1 2 0:24", "1 2 0:24 ", "1 2 0:24 -", "1 2 0:24 - ",
                           "1 2 0:24 tmpfs", "1 2 0:24 / / rw - ext4 tmpfs rw"}) {
    EXPECT_FALSE(isInMemory(text, makedev(0, 24))) << text;
  }
}

}  // namespace
}  // namespace runel
