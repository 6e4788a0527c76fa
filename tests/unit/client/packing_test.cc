// SPDX-License-Identifier: Apache-2.0
// When pieces are compressed, by given times of the device's answers.
#include "client/transfer/push/packing.h"

#include <algorithm>
#include <chrono>
#include <cstddef>

#include <gtest/gtest.h>

namespace runel {
namespace {

constexpr std::size_t kTried = 1048576;  // the size of a piece that is compressed

class PackingTest : public ::testing::Test {
 protected:
  // A piece of 1 MiB was answered @p time after the one before.
  void answer(Packing& packing, Packer packer, std::chrono::milliseconds time) {
    now += time;
    packing.answered(kTried, packer, now);
  }
  // The device unpacks, and the line takes a mebibyte in @p time.
  Packing known(bool onAnyLine, std::chrono::milliseconds time) {
    Packing packing(true, onAnyLine);
    packing.begin(now);
    packing.sent(kTried, Packer::none);
    answer(packing, Packer::none, time);
    packing.asked();
    packing.setUnpacks(true, false);
    return packing;
  }

  // Sends what is next if that is @p packer. The answer comes after @p time for a mebibyte.
  void send(Packing& packing, Packer packer, std::chrono::milliseconds time) {
    EXPECT_EQ(packing.next(), packer);
    const std::size_t bytes = std::min(packing.most(), kTried);
    packing.sent(bytes, packer);
    now += time * bytes / kTried;
    packing.answered(bytes, packer, now);
  }
  // The same as known(), and bzip2 was tried on a short piece after gzip.
  Packing shortlyTried(std::chrono::milliseconds gzip, std::chrono::milliseconds bzip2) {
    Packing packing = known(true, kSlow);
    packing.setUnpacks(true, true);
    send(packing, Packer::gzip, gzip);
    send(packing, Packer::gzip, gzip);
    EXPECT_EQ(packing.most(), kTried / 4);
    send(packing, Packer::bzip2, bzip2);
    EXPECT_NE(packing.most(), kTried / 4);
    return packing;
  }
  // The same, and bzip2 was tried on two more pieces.
  Packing tried(std::chrono::milliseconds gzip, std::chrono::milliseconds bzip2) {
    Packing packing = shortlyTried(gzip, bzip2);
    send(packing, Packer::bzip2, bzip2);
    send(packing, Packer::bzip2, bzip2);
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
  answer(packing, Packer::none, kSlow);
  EXPECT_TRUE(packing.asks());
  EXPECT_EQ(packing.next(), Packer::none);
  EXPECT_EQ(packing.most(), kTried);
  packing.asked();
  EXPECT_FALSE(packing.asks());
  EXPECT_EQ(packing.most(), kTried) << "large pieces would delay the answer";
  packing.setUnpacks(true, false);
  EXPECT_EQ(packing.next(), Packer::gzip);
}

TEST_F(PackingTest, ASingleByteMeasuresTheLine) {
  Packing packing(true, false);
  packing.begin(now);
  packing.answered(0, Packer::none, now + kSlow);
  EXPECT_FALSE(packing.asks());
  packing.answered(1, Packer::none, now + 2 * kSlow);
  EXPECT_TRUE(packing.asks());
}

TEST_F(PackingTest, DoesNothingOnAFastLine) {
  Packing packing(true, false);
  packing.begin(now);
  answer(packing, Packer::none, kFast);
  EXPECT_FALSE(packing.asks());
  EXPECT_GT(packing.most(), 1024 * kTried);
}

TEST_F(PackingTest, TriesOnAFastLineIfTold) {
  EXPECT_EQ(known(true, kFast).next(), Packer::gzip);
  EXPECT_EQ(known(false, kFast).next(), Packer::none);
}

TEST_F(PackingTest, AsksBeforeTheFirstPieceIfToldToTryOnAnyLine) {
  Packing packing(true, true);
  packing.begin(now);
  EXPECT_TRUE(packing.asks());
  packing.asked();
  packing.setUnpacks(true, false);
  EXPECT_EQ(packing.next(), Packer::gzip);
}

TEST_F(PackingTest, ComparesWithOneShortPlainPiece) {
  Packing packing(true, true);
  packing.begin(now);
  packing.asked();
  packing.setUnpacks(true, false);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(packing.next(), Packer::gzip);
    packing.sent(kTried, Packer::gzip);
    answer(packing, Packer::gzip, kFast);
  }
  EXPECT_EQ(packing.next(), Packer::none);
  EXPECT_EQ(packing.most(), kTried / 4);
  packing.sent(kTried, Packer::none);
  EXPECT_EQ(packing.next(), Packer::gzip) << "until it was answered";
  answer(packing, Packer::none, kFast / 2);
  EXPECT_EQ(packing.next(), Packer::none);
}

TEST_F(PackingTest, DoesNothingWithoutACompressor) {
  Packing packing(false, true);
  packing.begin(now);
  answer(packing, Packer::none, kSlow);
  EXPECT_FALSE(packing.asks());
}

TEST_F(PackingTest, DoesNothingWithoutGzipOnTheDevice) {
  Packing packing = known(true, kSlow);
  packing.setUnpacks(false, true);
  EXPECT_EQ(packing.next(), Packer::none);
  EXPECT_FALSE(packing.asks());
  EXPECT_GT(packing.most(), 1024 * kTried);
}

TEST_F(PackingTest, ContinuesWhileItIsFaster) {
  Packing packing = known(false, kSlow);
  for (int i = 0; i < 10; ++i) {
    answer(packing, Packer::gzip, kSlow / 2);
    EXPECT_EQ(packing.next(), Packer::gzip);
  }
}

TEST_F(PackingTest, EndsWhenItIsSlowerUntilTheNextFile) {
  Packing packing = known(true, kFast);
  answer(packing, Packer::gzip, 2 * kFast);
  EXPECT_EQ(packing.next(), Packer::gzip) << "one piece does not decide";
  answer(packing, Packer::gzip, 2 * kFast);
  EXPECT_EQ(packing.next(), Packer::none);
  packing.begin(now);
  EXPECT_EQ(packing.next(), Packer::gzip);
}

TEST_F(PackingTest, TriesBzip2ShortlyBeforeTheAnswersToGzip) {
  Packing packing = known(true, kSlow);
  packing.setUnpacks(true, true);
  for (const Packer expected :
       {Packer::gzip, Packer::gzip, Packer::bzip2, Packer::gzip, Packer::gzip}) {
    EXPECT_EQ(packing.next(), expected);
    packing.sent(std::min(packing.most(), kTried), expected);
  }
}

TEST_F(PackingTest, TriesBzip2OnTwoMorePiecesWhereTheShortOneWasNotMuchSlower) {
  Packing packing = shortlyTried(kSlow / 4, kSlow / 2);
  for (const Packer expected : {Packer::bzip2, Packer::bzip2, Packer::gzip}) {
    EXPECT_EQ(packing.next(), expected);
    EXPECT_EQ(packing.most(), kTried);
    packing.sent(kTried, expected);
  }
}

TEST_F(PackingTest, DoesNotContinueWithBzip2ThatIsMuchSlower) {
  Packing packing = shortlyTried(kSlow / 4, kSlow / 2 + std::chrono::milliseconds(9));
  EXPECT_EQ(packing.next(), Packer::gzip);
  packing.begin(now);
  EXPECT_EQ(packing.next(), Packer::gzip);
}

TEST_F(PackingTest, DoesNotContinueWithBzip2ThatMakesAPieceNoSmaller) {
  Packing packing = known(true, kSlow);
  packing.setUnpacks(true, true);
  send(packing, Packer::gzip, kSlow / 2);
  send(packing, Packer::gzip, kSlow / 2);
  packing.sent(kTried / 4, Packer::bzip2);
  send(packing, Packer::gzip, kSlow / 2);
  send(packing, Packer::gzip, kSlow / 2);
}

TEST_F(PackingTest, DoesNotContinueWithBzip2WhereGzipIsTooSlowForTheLine) {
  EXPECT_EQ(shortlyTried(kSlow * 2, kSlow).next(), Packer::none);
}

TEST_F(PackingTest, ContinuesWithTheFasterOne) {
  EXPECT_EQ(tried(kSlow / 2, kSlow / 3).next(), Packer::bzip2);
  EXPECT_EQ(tried(kSlow / 3, kSlow / 2).next(), Packer::gzip);
  EXPECT_EQ(tried(kSlow, kSlow).next(), Packer::gzip);
}

TEST_F(PackingTest, DetectsSoonThatTheOtherOneIsFaster) {
  Packing packing = tried(kSlow / 2, kSlow / 4);
  for (int i = 0; i < 1000; ++i) {
    answer(packing, Packer::bzip2, kSlow / 4);
  }
  EXPECT_EQ(packing.next(), Packer::bzip2);
  for (int i = 0; i < 10; ++i) {
    answer(packing, Packer::bzip2, kSlow);
  }
  EXPECT_EQ(packing.next(), Packer::gzip);
}

TEST_F(PackingTest, ContinuesWithTheFasterOneInTheNextFile) {
  Packing packing = tried(kSlow / 2, kSlow / 3);
  packing.begin(now);
  EXPECT_EQ(packing.next(), Packer::bzip2);
}

}  // namespace
}  // namespace runel
