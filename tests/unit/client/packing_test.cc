// SPDX-License-Identifier: Apache-2.0
// When pieces are compressed, by given times of the device's answers.
#include "client/transfer/push/packing.h"

#include <chrono>
#include <cstddef>

#include <gtest/gtest.h>

namespace runel {
namespace {

constexpr std::size_t kTried = 1048576;  // the size of a piece that is compressed

class PackingTest : public ::testing::Test {
 protected:
  // A piece of 1 MiB was answered @p time after the one before.
  void answer(Packing& packing, bool packed, std::chrono::milliseconds time) {
    now += time;
    packing.answered(kTried, packed, now);
  }
  // The device unpacks, and the line takes a mebibyte in @p time.
  Packing known(bool onAnyLine, std::chrono::milliseconds time) {
    Packing packing(true, onAnyLine);
    packing.begin(now);
    packing.sent(false);
    answer(packing, false, time);
    packing.asked();
    packing.setUnpacks(true);
    return packing;
  }

  static constexpr std::chrono::milliseconds kSlow{1000};
  static constexpr std::chrono::milliseconds kFast{10};
  Packing::Clock::time_point now;
};

TEST_F(PackingTest, AsksOnASlowLineAfterThePlainPiece) {
  Packing packing(true, false);
  packing.begin(now);
  EXPECT_FALSE(packing.asks());
  answer(packing, false, kSlow);
  EXPECT_TRUE(packing.asks());
  EXPECT_FALSE(packing.next());
  EXPECT_EQ(packing.most(), kTried);
  packing.asked();
  EXPECT_FALSE(packing.asks());
  EXPECT_EQ(packing.most(), kTried) << "large pieces would delay the answer";
  packing.setUnpacks(true);
  EXPECT_TRUE(packing.next());
}

TEST_F(PackingTest, ASingleByteMeasuresTheLine) {
  Packing packing(true, false);
  packing.begin(now);
  packing.answered(0, false, now + kSlow);
  EXPECT_FALSE(packing.asks());
  packing.answered(1, false, now + 2 * kSlow);
  EXPECT_TRUE(packing.asks());
}

TEST_F(PackingTest, DoesNothingOnAFastLine) {
  Packing packing(true, false);
  packing.begin(now);
  answer(packing, false, kFast);
  EXPECT_FALSE(packing.asks());
  EXPECT_GT(packing.most(), 1024 * kTried);
}

TEST_F(PackingTest, TriesOnAFastLineIfTold) {
  EXPECT_TRUE(known(true, kFast).next());
  EXPECT_FALSE(known(false, kFast).next());
}

TEST_F(PackingTest, AsksBeforeTheFirstPieceIfToldToTryOnAnyLine) {
  Packing packing(true, true);
  packing.begin(now);
  EXPECT_TRUE(packing.asks());
  packing.asked();
  packing.setUnpacks(true);
  EXPECT_TRUE(packing.next());
}

TEST_F(PackingTest, ComparesWithOneShortPlainPiece) {
  Packing packing(true, true);
  packing.begin(now);
  packing.asked();
  packing.setUnpacks(true);
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(packing.next());
    packing.sent(true);
    answer(packing, true, kFast);
  }
  EXPECT_FALSE(packing.next());
  EXPECT_EQ(packing.most(), kTried / 4);
  packing.sent(false);
  EXPECT_TRUE(packing.next()) << "until it was answered";
  answer(packing, false, kFast / 2);
  EXPECT_FALSE(packing.next());
}

TEST_F(PackingTest, DoesNothingWithoutACompressor) {
  Packing packing(false, true);
  packing.begin(now);
  answer(packing, false, kSlow);
  EXPECT_FALSE(packing.asks());
}

TEST_F(PackingTest, DoesNothingWithoutGzipOnTheDevice) {
  Packing packing = known(true, kSlow);
  packing.setUnpacks(false);
  EXPECT_FALSE(packing.next());
  EXPECT_FALSE(packing.asks());
  EXPECT_GT(packing.most(), 1024 * kTried);
}

TEST_F(PackingTest, ContinuesWhileItIsFaster) {
  Packing packing = known(false, kSlow);
  for (int i = 0; i < 10; ++i) {
    answer(packing, true, kSlow / 2);
    EXPECT_TRUE(packing.next());
  }
}

TEST_F(PackingTest, EndsWhenItIsSlowerUntilTheNextFile) {
  Packing packing = known(true, kFast);
  answer(packing, true, 2 * kFast);
  EXPECT_TRUE(packing.next()) << "one piece does not decide";
  answer(packing, true, 2 * kFast);
  EXPECT_FALSE(packing.next());
  packing.begin(now);
  EXPECT_TRUE(packing.next());
}

}  // namespace
}  // namespace runel
