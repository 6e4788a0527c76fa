// SPDX-License-Identifier: Apache-2.0
// Two event loops in one thread.
#include "gateway/app/loop_bridge.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include "support/socket_pair.h"

namespace runelgw {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

class LoopBridgeTest : public testing::Test {
 protected:
  boost::asio::io_context context{1};
  runel::Loop loop;
  LoopBridge bridge{context, loop};
  std::vector<std::string> seen;
};

TEST_F(LoopBridgeTest, RunsTimersOfTheLoop) {
  loop.after(milliseconds(5), [this] {
    seen.emplace_back("first");
    loop.after(milliseconds(5), [this] {
      seen.emplace_back("second");
      bridge.stop();
    });
  });
  bridge.run();
  EXPECT_THAT(seen, ElementsAre("first", "second"));
}

TEST_F(LoopBridgeTest, RunsATimerThatAHandlerOfTheOtherLoopSets) {
  loop.after(std::chrono::hours(1), [this] { seen.emplace_back("too late"); });
  boost::asio::post(context, [this] {
    loop.after(milliseconds(1), [this] {
      seen.emplace_back("earlier");
      bridge.stop();
    });
  });
  bridge.run();
  EXPECT_THAT(seen, ElementsAre("earlier"));
}

TEST_F(LoopBridgeTest, RunsACallThatAHandlerOfTheOtherLoopDefers) {
  boost::asio::post(context, [this] {
    loop.next([this] {
      seen.emplace_back("deferred");
      boost::asio::post(context, [this] { bridge.stop(); });
    });
  });
  bridge.run();
  EXPECT_THAT(seen, ElementsAre("deferred"));
}

TEST_F(LoopBridgeTest, TellsOfEventsOfTheLoop) {
  const zell::test::SocketPair pair = zell::test::SocketPair::local();
  int count = 0;
  ASSERT_TRUE(loop.watch(pair.near(), EPOLLIN, [&](std::uint32_t) {
    char byte = 0;
    ASSERT_EQ(::read(pair.near(), &byte, 1), 1);
    if (++count == 3) {
      bridge.stop();
      return;
    }
    ASSERT_EQ(::write(pair.far(), "x", 1), 1);
  }));
  ASSERT_EQ(::write(pair.far(), "x", 1), 1);
  bridge.run();
  EXPECT_EQ(count, 3);
  loop.forget(pair.near());
}

TEST_F(LoopBridgeTest, EndsAtOnceIfItWasStoppedBefore) {
  boost::asio::post(context, [this] { seen.emplace_back("never"); });
  bridge.stop();
  bridge.run();
  EXPECT_THAT(seen, testing::IsEmpty());
}

}  // namespace
}  // namespace runelgw
