// SPDX-License-Identifier: Apache-2.0
// Names are looked up beside the loop.
#include "probe/background_resolver.h"

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <runel/error.h>
#include <runel/loop.h>
#include <runel/result.h>

namespace runelctl {
namespace {

using Resolved = std::optional<runel::Result<in_addr>>;

// Runs @p loop until @p resolved has a value, for a minute at most.
void runUntil(runel::Loop& loop, const Resolved& resolved) {
  const auto end = runel::Clock::now() + std::chrono::minutes(1);
  while (!resolved && runel::Clock::now() < end) {
    loop.turn(runel::Milliseconds(1000));
  }
  ASSERT_TRUE(resolved);
}

class BackgroundResolverTest : public ::testing::Test {
 protected:
  // Returns whether the answer came within the call.
  bool ask(const std::string& host, Resolved& resolved) {
    loop_.resolve(host, [&resolved](const runel::Result<in_addr>& result) { resolved = result; });
    return resolved.has_value();
  }

  runel::Loop loop_;
  std::optional<BackgroundResolver> resolver_{std::in_place, loop_};
};

TEST_F(BackgroundResolverTest, FindsTheAddressOfAName) {
  Resolved resolved;
  EXPECT_FALSE(ask("localhost", resolved));
  runUntil(loop_, resolved);
  ASSERT_TRUE(*resolved) << resolved->error().text();
  EXPECT_EQ((*resolved)->s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(BackgroundResolverTest, LooksUpSeveralNamesAtOnce) {
  std::vector<Resolved> resolved(20);
  for (Resolved& one : resolved) {
    EXPECT_FALSE(ask("localhost", one));
  }
  for (const Resolved& one : resolved) {
    runUntil(loop_, one);
    EXPECT_TRUE(*one);
  }
}

TEST_F(BackgroundResolverTest, ReportsAnUnknownName) {
  Resolved resolved;
  EXPECT_FALSE(ask("unknown..name", resolved));
  runUntil(loop_, resolved);
  ASSERT_FALSE(*resolved);
  EXPECT_EQ(resolved->error().cause(), runel::Cause::resolve);
  EXPECT_NE(resolved->error().text(), "");
}

TEST_F(BackgroundResolverTest, CallsNothingAfterItsEnd) {
  Resolved resolved;
  for (int count = 0; count < 20; ++count) {
    EXPECT_FALSE(ask("localhost", resolved));
  }
  resolver_.reset();
  for (int turn = 0; turn < 20; ++turn) {
    loop_.turn(runel::Milliseconds(5));
  }
  EXPECT_FALSE(resolved);
}

TEST_F(BackgroundResolverTest, IsNotTheResolverAfterItsEnd) {
  resolver_.reset();
  Resolved resolved;
  EXPECT_TRUE(ask("localhost", resolved));
  EXPECT_FALSE(*resolved);
}

TEST_F(BackgroundResolverTest, ReportsALackOfDescriptors) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  Resolved resolved;
  const bool immediate = ask("localhost", resolved);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  ASSERT_TRUE(immediate);
  ASSERT_FALSE(*resolved);
  EXPECT_EQ(resolved->error().text(), "Too many open files");
}

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RUNELCTL_ADDRESS_SANITIZER
#endif
#endif

#ifndef RUNELCTL_ADDRESS_SANITIZER  // which needs more memory itself

// In a child, because the limit of memory applies to all threads. Threads that wait take the stacks
// of earlier threads, which could otherwise be used again.
TEST_F(BackgroundResolverTest, ReportsALackOfThreads) {
  const auto withoutMemory = [this] {
    Resolved resolved;
    const rlimit none{};
    (void)setrlimit(RLIMIT_AS, &none);
    try {
      for (int thread = 0; thread < 1000; ++thread) {
        std::thread([] { (void)pause(); }).detach();
      }
    } catch (const std::system_error&) {
      const bool immediate = ask("localhost", resolved);
      std::_Exit(immediate && !*resolved ? 7 : 1);
    }
    std::_Exit(2);
  };
  EXPECT_EXIT(withoutMemory(), ::testing::ExitedWithCode(7), "");
}

#endif

}  // namespace
}  // namespace runelctl
