// SPDX-License-Identifier: Apache-2.0
// What a peer's system acknowledges: on TCP connections of the loopback.
#include "client/io/acknowledgements.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "client/io/channel.h"
#include "client/io/connector.h"
#include "support/loopback.h"

namespace runel {
namespace {

constexpr unsigned kMinute = 60000;

class AcknowledgementsTest : public ::testing::Test {
 protected:
  AcknowledgementsTest() {
    std::uint16_t port = 0;
    const zell::UniqueFd listener = zell::test::listenOnLoopback(port);
    near.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(connect(near.get(), generic, sizeof address), 0);
    far.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  // Sends until the peer's window is closed.
  void fill() const {
    const std::string part(65536, 'x');
    while (send(near.get(), part.data(), part.size(), MSG_DONTWAIT) > 0) {
    }
  }
  void drain() const {
    std::string part(1048576, '\0');
    while (recv(far.get(), part.data(), part.size(), MSG_DONTWAIT) > 0) {
    }
  }
  [[nodiscard]] static unsigned limitOf(int socket) {
    unsigned limit = 0;
    socklen_t size = sizeof limit;
    EXPECT_EQ(getsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &limit, &size), 0);
    return limit;
  }
  // Against a hang only: the loopback needs a moment.
  [[nodiscard]] static bool becomes(const std::function<bool()>& state) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!state() && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return state();
  }

  zell::UniqueFd near;
  zell::UniqueFd far;
};

TEST_F(AcknowledgementsTest, ASilentPeerIsProbedForAMinute) {
  const auto option = [this](int level, int name) {
    int value = 0;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(near.get(), level, name, &value, &size), 0);
    return value;
  };
  setTaskOptions(near.get());
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 10);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 10);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 5);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 1);
}

TEST_F(AcknowledgementsTest, AnIdlePeerAcknowledges) {
  EXPECT_TRUE(acknowledges(near.get()));
  EXPECT_TRUE(isAcknowledged(near.get()));
  EXPECT_TRUE(limitAcknowledgements(near.get()));
  EXPECT_EQ(limitOf(near.get()), kMinute);
}

TEST_F(AcknowledgementsTest, APeerThatDoesNotReadAcknowledgesAndHasNoLimit) {
  fill();
  EXPECT_FALSE(isAcknowledged(near.get()));
  EXPECT_TRUE(
      becomes([this] { return limitAcknowledgements(near.get()) && limitOf(near.get()) == 0; }));
  EXPECT_TRUE(acknowledges(near.get()));
  EXPECT_TRUE(becomes([this] {
    drain();
    return limitAcknowledgements(near.get()) && limitOf(near.get()) == kMinute;
  }));
  EXPECT_TRUE(becomes([this] {
    drain();
    return isAcknowledged(near.get());
  }));
}

TEST_F(AcknowledgementsTest, AUnixSocketHasNoLimit) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const zell::UniqueFd one(ends[0]);
  const zell::UniqueFd other(ends[1]);
  EXPECT_FALSE(limitAcknowledgements(one.get()));
  EXPECT_TRUE(acknowledges(one.get()));
}

TEST_F(AcknowledgementsTest, AChannelAdaptsTheLimitWhileDataIsOnTheWay) {
  Loop loop;
  const int socket = near.get();
  Channel channel(loop, std::move(near), {[](std::string&&) {}, [](const Error&) {}, {}});
  EXPECT_EQ(limitOf(socket), kMinute);
  channel.send(std::string(64U << 20U, 'x'));
  const auto run = [&](const std::function<bool()>& state) {
    return becomes([&] {
      loop.turn(Milliseconds(10));
      return state();
    });
  };
  EXPECT_TRUE(run([&] { return limitOf(socket) == 0; }));
  EXPECT_TRUE(run([&] {
    drain();
    return channel.queued() == 0 && limitOf(socket) == kMinute;
  }));
  EXPECT_TRUE(run([&] { return !loop.deadline(); })) << "it looks no more";
}

}  // namespace
}  // namespace runel
