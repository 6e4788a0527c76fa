// SPDX-License-Identifier: Apache-2.0
#include "gateway/core/payload_spool.h"

#include <cerrno>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace runelgw {
namespace {

Payload store(PayloadSpool& spool, const std::string& bytes) {
  auto writer = spool.begin(bytes.size());
  EXPECT_TRUE(writer);
  for (std::size_t at = 0; at < bytes.size(); at += 1000) {
    EXPECT_TRUE((*writer)->add(std::string_view(bytes).substr(at, 1000)));
  }
  return (*writer)->finish();
}

std::string all(const Payload& payload) {
  std::string bytes;
  EXPECT_TRUE(payload.read(0, static_cast<std::size_t>(payload.size()), bytes));
  return bytes;
}

class PayloadSpoolTest : public ::testing::Test {
 protected:
  zell::test::TempDir directory;
  PayloadSpool spool{directory.path(), 100000};
};

TEST_F(PayloadSpoolTest, GivesTheBytesBack) {
  const std::string bytes = std::string(4999, 'a') + "b";
  const Payload payload = store(spool, bytes);
  EXPECT_FALSE(payload.isInMemory());
  EXPECT_EQ(payload.size(), 5000U);
  EXPECT_EQ(all(payload), bytes);
  std::string part;
  EXPECT_TRUE(payload.read(4998, 100, part));
  EXPECT_EQ(part, "ab");
  EXPECT_TRUE(payload.read(6000, 1, part));
  EXPECT_EQ(part, "");
  EXPECT_EQ(payload.bytes(), "");
}

TEST_F(PayloadSpoolTest, IsBounded) {
  {
    const Payload large = store(spool, std::string(60000, 'x'));
    const auto second = spool.begin(40001);
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error().text(), "the temporary file is full (60000 of 100000 bytes used)");
    EXPECT_TRUE(spool.begin(40000));
    EXPECT_EQ(spool.used(), 60000U) << "a dropped writer frees its room";
  }
  EXPECT_EQ(spool.used(), 0U);
  EXPECT_TRUE(spool.begin(100000));
}

TEST_F(PayloadSpoolTest, AnIncompletePayloadIsEmpty) {
  auto writer = spool.begin(10);
  ASSERT_TRUE(writer);
  EXPECT_TRUE((*writer)->add("123456789"));
  EXPECT_FALSE((*writer)->complete());
  EXPECT_EQ((*writer)->finish().size(), 0U);
  EXPECT_FALSE((*writer)->add("12"));
  EXPECT_EQ(errno, EFBIG);
  EXPECT_FALSE((*writer)->add("1")) << "as every later call";
}

TEST_F(PayloadSpoolTest, MissingDirectoryIsAnError) {
  PayloadSpool missing(directory.path() + "/absent", 1000);
  const auto writer = missing.begin(1);
  ASSERT_FALSE(writer);
  EXPECT_NE(writer.error().text().find("cannot create a temporary file"), std::string::npos);
  EXPECT_EQ(missing.used(), 0U);
}

TEST_F(PayloadSpoolTest, PayloadsOutliveTheSpool) {
  auto own = std::make_unique<PayloadSpool>(directory.path(), 10);
  const Payload payload = store(*own, "0123456789");
  own.reset();
  EXPECT_EQ(all(payload), "0123456789");
}

TEST_F(PayloadSpoolTest, PayloadsDoNotMixWhenRoomIsReused) {
  std::mt19937 random(3);
  std::vector<std::pair<std::string, Payload>> kept;
  for (int step = 0; step < 2000; ++step) {
    if (kept.size() < 10 && random() % 3 != 0) {
      const std::string bytes(1 + random() % 9000, static_cast<char>('a' + step % 26));
      kept.emplace_back(bytes, store(spool, bytes));
    } else if (!kept.empty()) {
      const std::size_t at = random() % kept.size();
      ASSERT_EQ(all(kept[at].second), kept[at].first);
      kept.erase(kept.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }
}

}  // namespace
}  // namespace runelgw
