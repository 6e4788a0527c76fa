// SPDX-License-Identifier: Apache-2.0
// Data that is held in memory up to a limit, and in a temporary file beyond it.
#include "client/io/spool.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace runel {
namespace {

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * kKiB;

std::string textOf(const HeldBytes& held) {
  std::string text;
  EXPECT_TRUE(held.forEach([&](std::string_view piece) {
    text += piece;
    return true;
  }));
  return text;
}

// Different bytes in each part, so that a wrong order is seen.
std::string pattern(std::size_t size, std::size_t seed) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    text[i] = static_cast<char>((i * 31 + seed * 101 + i / 251) & 255U);
  }
  return text;
}

// Sets an environment variable during its life.
class Environment {
 public:
  Environment(const char* name, const std::string& value) : name_(name) {
    const char* before = std::getenv(name);
    before_ = before != nullptr ? before : "";
    setenv(name, value.c_str(), 1);
  }
  ~Environment() { setenv(name_, before_.c_str(), 1); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  const char* name_;
  std::string before_;
};

TEST(HeldBytesTest, KeepsEverythingInMemoryWithoutASpool) {
  HeldBytes held;
  EXPECT_TRUE(held.empty());
  held.add("one ");
  held.add(std::string(kMiB, 'x'));
  held.add("");
  EXPECT_EQ(held.size(), kMiB + 4);
  EXPECT_EQ(held.back(), 'x');
  EXPECT_EQ(textOf(held), "one " + std::string(kMiB, 'x'));
}

TEST(HeldBytesTest, ReturnsTheSameBytesHoweverTheyAreAdded) {
  for (const std::size_t limit : {std::size_t{0}, 100 * kKiB, 700 * kKiB, 100 * kMiB}) {
    for (const std::size_t part : {std::size_t{999}, 70 * kKiB, 400 * kKiB}) {
      const auto spool = std::make_shared<Spool>(limit);
      HeldBytes held(spool);
      std::string expected;
      for (std::size_t i = 0; expected.size() < kMiB; ++i) {
        expected += pattern(part, i);
        held.add(pattern(part, i));
        ASSERT_LE(spool->used(), limit / 2);
      }
      EXPECT_EQ(textOf(held), expected) << limit << " " << part;
      EXPECT_EQ(held.back(), expected.back());
      EXPECT_EQ(held.release().value(), expected);
      EXPECT_TRUE(held.empty());
      EXPECT_EQ(spool->used(), 0U);
    }
  }
}

TEST(HeldBytesTest, TheMemoryOfAllIsLimitedAndAvailableAgain) {
  const auto spool = std::make_shared<Spool>(8 * kMiB);
  std::vector<HeldBytes> all;
  for (std::size_t i = 0; i < 20; ++i) {
    all.emplace_back(spool, Held::arriving);
    all.back().take(pattern(kMiB, i));
    EXPECT_LE(spool->used(), 8 * kMiB);
  }
  EXPECT_GT(spool->used(), 6 * kMiB);
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i].release().value(), pattern(kMiB, i));
  }
  EXPECT_EQ(spool->used(), 0U);
}

TEST(HeldBytesTest, WaitingDataLeavesHalfOfTheMemory) {
  const auto spool = std::make_shared<Spool>(4 * kMiB);
  HeldBytes waiting(spool);
  waiting.take(pattern(3 * kMiB, 1));
  EXPECT_EQ(spool->used(), 0U);
  HeldBytes arriving(spool, Held::arriving);
  arriving.take(pattern(3 * kMiB, 2));
  EXPECT_GE(spool->used(), 3 * kMiB);
  EXPECT_EQ(textOf(waiting), pattern(3 * kMiB, 1));
}

TEST(HeldBytesTest, ExpectedBytesAreCountedBeforeTheyArrive) {
  const auto spool = std::make_shared<Spool>(kMiB);
  HeldBytes first(spool, Held::arriving);
  first.expect(900 * kKiB);
  EXPECT_EQ(spool->used(), 900 * kKiB);
  HeldBytes second(spool, Held::arriving);
  second.expect(900 * kKiB);
  EXPECT_EQ(spool->used(), 900 * kKiB);
  first.add(pattern(900 * kKiB, 1));
  second.add(pattern(900 * kKiB, 2));
  EXPECT_EQ(spool->used(), 900 * kKiB);
  EXPECT_EQ(second.release().value(), pattern(900 * kKiB, 2));
}

TEST(HeldBytesTest, CountsAtMostHalfMoreThanItHolds) {
  const auto spool = std::make_shared<Spool>(kMiB);
  HeldBytes held(spool);
  held.add(pattern(100 * kKiB, 1));
  held.add("x");
  EXPECT_LE(spool->used(), 150 * kKiB);
}

TEST(HeldBytesTest, ShortTextsAreNotCounted) {
  const auto spool = std::make_shared<Spool>(0);
  HeldBytes held(spool);
  held.add("short");
  EXPECT_EQ(textOf(held), "short");
  EXPECT_EQ(spool->used(), 0U);
}

TEST(HeldBytesTest, AreEqualInMemoryAndInAFile) {
  const auto none = std::make_shared<Spool>(0);
  const std::string text = pattern(3 * kMiB, 7);
  std::string other = text;
  other[2 * kMiB] ^= 1;
  HeldBytes inMemory;
  inMemory.add(text);
  HeldBytes inFile(none);
  inFile.add(text.substr(0, kMiB));
  inFile.add(text.substr(kMiB));
  HeldBytes different(none);
  different.add(other);
  HeldBytes shorter;
  shorter.add(text.substr(1));
  EXPECT_TRUE(inMemory == inFile);
  EXPECT_TRUE(inFile == inMemory);
  EXPECT_FALSE(inFile == different);
  EXPECT_FALSE(inMemory == shorter);
}

TEST(HeldBytesTest, MovingMovesTheCount) {
  const auto spool = std::make_shared<Spool>(kMiB);
  HeldBytes first(spool, Held::arriving);
  first.add(pattern(500 * kKiB, 1));
  const std::size_t used = spool->used();
  HeldBytes second(std::move(first));
  HeldBytes third;
  third = std::move(second);
  EXPECT_EQ(spool->used(), used);
  EXPECT_EQ(textOf(third), pattern(500 * kKiB, 1));
  third = HeldBytes();
  EXPECT_EQ(spool->used(), 0U);
}

TEST(HeldBytesTest, StaysInMemoryWithoutATemporaryDirectory) {
  const Environment environment("TMPDIR", "/no/such/directory");
  const auto spool = std::make_shared<Spool>(kMiB);
  HeldBytes held(spool);
  held.add(pattern(2 * kMiB, 1));
  held.add(pattern(2 * kMiB, 2));
  EXPECT_EQ(spool->error(), ENOENT);
  EXPECT_EQ(textOf(held), pattern(2 * kMiB, 1) + pattern(2 * kMiB, 2));
  EXPECT_GE(spool->used(), 4 * kMiB);
  held.clear();
  EXPECT_EQ(spool->used(), 0U);
}

// Limits the size of the files that this process writes.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(std::size_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, SIG_DFL);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_{};
};

TEST(HeldBytesTest, WhatAFullFileCannotTakeStaysInMemory) {
  const auto spool = std::make_shared<Spool>(0);
  HeldBytes held(spool);
  std::string expected;
  {
    const FileSizeLimit limit(1500 * kKiB);
    for (std::size_t i = 0; i < 6; ++i) {
      expected += pattern(500 * kKiB, i);
      held.add(pattern(500 * kKiB, i));
    }
  }
  EXPECT_EQ(spool->error(), EFBIG);
  EXPECT_EQ(textOf(held), expected);
  EXPECT_EQ(held.release().value(), expected);
  EXPECT_EQ(spool->used(), 0U);
}

TEST(SpoolTest, TheFileHasNoName) {
  const std::string directory = std::filesystem::temp_directory_path() / "spool-test";
  std::filesystem::create_directory(directory);
  {
    const Environment environment("TMPDIR", directory);
    const auto spool = std::make_shared<Spool>(0);
    HeldBytes held(spool);
    held.add(pattern(kMiB, 1));
    EXPECT_TRUE(std::filesystem::is_empty(directory));
    EXPECT_EQ(spool->error(), 0);
    EXPECT_EQ(textOf(held), pattern(kMiB, 1));
  }
  std::filesystem::remove(directory);
}

TEST(SpoolTest, ReadingBehindTheEndFails) {
  Spool spool(0);
  ASSERT_TRUE(spool.write("abc"));
  char bytes[8];
  EXPECT_TRUE(spool.read(0, bytes, 3));
  EXPECT_FALSE(spool.read(0, bytes, 4));
}

}  // namespace
}  // namespace runel
