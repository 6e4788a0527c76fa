// SPDX-License-Identifier: Apache-2.0
// The event-driven device, with the library's loop run in each of the possible ways.
#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <runel/async_device.h>
#include <runel/loop.h>
#include <runel/request.h>

#include "base/unique_fd.h"
#include "support/task_wire.h"
#include "unit/client/drivers.h"

namespace runel::test {
namespace {

struct Driver {
  const char* name;
  bool (*run)(Loop& loop, const Done& done);
};

class AdaptersTest : public ::testing::TestWithParam<Driver> {
 protected:
  // The default timeout is a limit against a hang.
  void connect(Milliseconds timeout = Milliseconds(60000)) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    peer.reset(ends[1]);
    DeviceOptions options;
    options.setTimeout(timeout);
    device = std::make_unique<AsyncDevice>(loop, ends[0], "peer", options);
  }
  ~AdaptersTest() override { loop.forget(peer.get()); }

  // The peer answers each request with "yes".
  void answer() {
    EXPECT_TRUE(loop.watch(peer.get(), EPOLLIN, [this](std::uint32_t) {
      char part[4096];
      const std::string got(part, static_cast<std::size_t>(
                                      std::max<ssize_t>(0, read(peer.get(), part, sizeof part))));
      for (std::size_t at = 0; (at = got.find("SlaveTask", at)) != std::string::npos; ++at) {
        const std::string frame = zell::test::reply("yes");
        EXPECT_EQ(write(peer.get(), frame.data(), frame.size()),
                  static_cast<ssize_t>(frame.size()));
      }
    }));
  }
  void ask() {
    device->ask(Request({"hostid"}), [this](Reply reply) { replies.push_back(std::move(reply)); });
  }
  bool run(const Done& done) { return GetParam().run(loop, done); }

  Loop loop;
  zell::UniqueFd peer;
  std::unique_ptr<AsyncDevice> device;
  std::vector<Reply> replies;
};

TEST_P(AdaptersTest, RequestsAreAnswered) {
  connect();
  answer();
  ask();
  ask();
  ask();
  ASSERT_TRUE(run([&] { return replies.size() == 3; }));
  for (const Reply& reply : replies) {
    EXPECT_EQ(reply.output(), "yes");
  }
}

TEST_P(AdaptersTest, AHandlerMayAskAgain) {
  connect();
  answer();
  int left = 5;
  std::function<void(const Reply&)> again = [&](const Reply&) {
    if (--left > 0) {
      device->ask(Request({"hostid"}), again);
    }
  };
  device->ask(Request({"hostid"}), again);
  EXPECT_TRUE(run([&] { return left == 0; }));
}

TEST_P(AdaptersTest, ASilentPeerTimesOut) {
  connect(Milliseconds(30));
  ask();
  ASSERT_TRUE(run([&] { return !replies.empty(); }));
  EXPECT_EQ(replies[0].error().cause(), Cause::silence);
}

TEST_P(AdaptersTest, ALostConnectionFailsAllRequests) {
  connect();
  ask();
  ask();
  peer.reset();
  ASSERT_TRUE(run([&] { return replies.size() == 2; }));
  EXPECT_EQ(replies[1].error().kind(), Kind::link);
}

TEST_P(AdaptersTest, AHandlerMayDestroyTheDevice) {
  connect();
  answer();
  device->ask(Request({"hostid"}), [&](const Reply&) { device.reset(); });
  EXPECT_TRUE(run([&] { return device == nullptr; }));
}

TEST_P(AdaptersTest, TimersAndDeferredCallsRun) {
  std::string order;
  loop.after(Milliseconds(20), [&] { order += "c"; });
  loop.after(Milliseconds(1), [&] {
    order += "b";
    loop.next([&] { order += "n"; });
  });
  loop.next([&] { order += "a"; });
  ASSERT_TRUE(run([&] { return order.size() == 4; }));
  EXPECT_TRUE(order == "abnc" || order == "abcn") << order;  // both timers may be due at once
}

INSTANTIATE_TEST_SUITE_P(Loops, AdaptersTest,
                         ::testing::Values(Driver{"Alone", runAlone}, Driver{"Poll", runInPoll},
                                           Driver{"Uv", runInUv}),
                         [](const auto& about) { return about.param.name; });

}  // namespace
}  // namespace runel::test
