// SPDX-License-Identifier: Apache-2.0
// The client library, linked without the rest of runelctl.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <runel/async_device.h>
#include <runel/loop.h>
#include <runel/request.h>

#include "base/unique_fd.h"
#include "client/io/channel.h"
#include "client/io/master_client.h"
#include "client/io/spool.h"
#include "support/loopback.h"
#include "support/refused_call.h"
#include "support/temp_dir.h"
#include "unit/client/drivers.h"

namespace runel {
namespace {

std::string answer(const std::string& output) {
  const std::string record =
      "SlaveTask 0 0 " + std::to_string(output.size()) + ":" + output + " 0 0 0 0 0";
  return "\x01" + std::to_string(record.size()) + "\x02" + record;
}

// A listener on the loopback, in the same loop as the device under test.
class Peer {
 public:
  explicit Peer(Loop& loop) : loop_(loop), listener_(zell::test::listenOnLoopback(port_)) {
    EXPECT_TRUE(loop_.watch(listener_.get(), EPOLLIN, [this](std::uint32_t) { take(); }));
  }
  ~Peer() {
    stopListening();
    while (!connections_.empty()) {
      hangUp(connections_.begin()->first);
    }
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  [[nodiscard]] Address target() const { return Address("127.0.0.1", port_).named("peer"); }
  void say(int fd, const std::string& bytes) {
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void hangUp(int fd) {
    loop_.forget(fd);
    connections_.erase(fd);
  }
  void stopListening() {
    loop_.forget(listener_.get());
    listener_.reset();
  }

  /// Called with all data of a connection so far, whenever data arrives.
  std::function<void(int fd, const std::string& bytes)> heard = [](int, const std::string&) {};
  int accepted = 0;

 private:
  void take() {
    zell::UniqueFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const int fd = connection.get();
    ++accepted;
    connections_[fd] = {std::move(connection), ""};
    EXPECT_TRUE(loop_.watch(fd, EPOLLIN, [this, fd](std::uint32_t) { read(fd); }));
  }
  void read(int fd) {
    char part[65536];
    const ssize_t got = recv(fd, part, sizeof part, MSG_DONTWAIT);
    if (got <= 0) {
      hangUp(fd);
      return;
    }
    std::string& all = connections_[fd].second;
    all.append(part, static_cast<std::size_t>(got));
    heard(fd, std::string(all));
  }

  Loop& loop_;
  std::uint16_t port_ = 0;
  zell::UniqueFd listener_;
  std::map<int, std::pair<zell::UniqueFd, std::string>> connections_;
};

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

class ClientTest : public ::testing::Test {
 protected:
  ~ClientTest() override { loop.forget(far.get()); }

  void runUntil(const test::Done& done) { ASSERT_TRUE(test::runUntil(loop, done)); }
  ReplyHandler keep() {
    return [this](Reply reply) { replies.push_back(std::move(reply)); };
  }

  /// Connected sockets: the result and `far`, which is not read before `readFar`.
  int connectedPair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    far.reset(ends[1]);
    return ends[0];
  }
  void readFar() {
    EXPECT_TRUE(loop.watch(far.get(), EPOLLIN, [this](std::uint32_t) {
      char part[65536];
      const ssize_t got = recv(far.get(), part, sizeof part, MSG_DONTWAIT);
      if (got > 0) {
        came.append(part, static_cast<std::size_t>(got));
      } else {
        loop.forget(far.get());
      }
    }));
  }
  void turnSome() {
    for (int i = 0; i < 5; ++i) {
      loop.turn(Milliseconds(0));
    }
  }

  Loop loop;
  Peer peer{loop};
  DeviceOptions limits;
  std::vector<Reply> replies;
  zell::UniqueFd far;
  std::string came;
};

TEST_F(ClientTest, AGivenSocketBecomesNonBlocking) {
  const int socket = connectedPair();
  const AsyncDevice device(loop, socket, "given");
  EXPECT_EQ(fcntl(socket, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
}

TEST_F(ClientTest, ARequestIsSentWhenItsLastByteIs) {
  AsyncDevice device(loop, connectedPair(), "given");
  device.ask(Request({"write", "/a"}, std::string(8000000, 'x')), keep());
  const std::size_t all = device.queued();
  turnSome();
  EXPECT_LT(device.queued(), all);
  EXPECT_GT(device.queued(), 0U);
  EXPECT_EQ(device.sent(), 0U);
}

TEST_F(ClientTest, WhatASocketCannotTakeIsSentLater) {
  AsyncDevice device(loop, connectedPair(), "given");
  device.ask(Request({"hostid"}), keep());
  const std::size_t all = device.queued();
  zell::test::runWithoutCall(SYS_sendmsg, EAGAIN, [this] { turnSome(); });
  EXPECT_EQ(device.queued(), all);
  readFar();
  runUntil([&] { return came.size() >= all; });
  EXPECT_EQ(countOf(came, "hostid"), 1U);
  EXPECT_TRUE(replies.empty());
}

TEST_F(ClientTest, TheMemoryOfALongAnswerIsCountedBeforeItArrives) {
  const auto spool = std::make_shared<Spool>(1000000);
  Channel channel(loop, zell::UniqueFd(connectedPair()),
                  {[](const std::string&) {}, [](const Error&) {}, nullptr});
  channel.limitMessages(1000000);
  channel.setSpool(spool);
  peer.say(far.get(), "\x01" + std::to_string(500000) + "\x02text");
  turnSome();
  EXPECT_GE(spool->used(), 500000U);
}

TEST_F(ClientTest, ANameNeedsAResolver) {
  std::string text;
  Loop().resolve("a.example", [&](const Result<in_addr>& found) { text = found.error().text(); });
  EXPECT_EQ(text, "not an IPv4 address, and no resolver is set");
}

TEST_F(ClientTest, SendsRequestsBeforeTheFirstAnswer) {
  peer.heard = [&](int fd, const std::string& bytes) {
    if (countOf(bytes, "SlaveTask") == 3) {
      peer.say(fd, answer("one") + answer("two") + answer("three"));
    }
  };
  AsyncDevice device(loop, peer.target(), limits);
  for (const char* path : {"/1", "/2", "/3"}) {
    device.ask(Request({"read", path}), keep());
  }
  EXPECT_TRUE(replies.empty()) << "never before it returns";
  runUntil([&] { return replies.size() == 3; });
  EXPECT_EQ(replies[0].output() + replies[1].output() + replies[2].output(), "onetwothree");
  EXPECT_EQ(peer.accepted, 1);
}

TEST_F(ClientTest, TimeoutFailsAllPendingRequests) {
  limits.setTimeout(Milliseconds(30));
  AsyncDevice device(loop, peer.target(), limits);
  device.ask(Request({"hostid"}), keep());
  device.ask(Request({"hostid"}), keep());
  runUntil([&] { return replies.size() == 2; });
  for (const Reply& reply : replies) {
    ASSERT_FALSE(reply.answered());
    EXPECT_EQ(reply.error().kind(), Kind::timeout);
    EXPECT_EQ(reply.error().outcome(), Outcome::unknown);
    EXPECT_TRUE(reply.error().transient());
  }
}

TEST_F(ClientTest, NextRequestAfterALossOpensANewConnection) {
  peer.heard = [&](int fd, const std::string&) {
    if (peer.accepted == 1) {
      peer.hangUp(fd);
    } else {
      peer.say(fd, answer("back"));
    }
  };
  AsyncDevice device(loop, peer.target(), limits);
  device.ask(Request({"hostid"}), keep());
  runUntil([&] { return replies.size() == 1; });
  ASSERT_FALSE(replies[0].answered());
  EXPECT_EQ(replies[0].error().cause(), Cause::closed);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::unknown);
  device.ask(Request({"hostid"}), keep());
  runUntil([&] { return replies.size() == 2; });
  EXPECT_EQ(replies[1].output(), "back");
  EXPECT_EQ(peer.accepted, 2);
}

TEST_F(ClientTest, HandlerMaySendAnotherRequest) {
  peer.heard = [&](int fd, const std::string&) { peer.say(fd, answer("x")); };
  AsyncDevice device(loop, peer.target(), limits);
  int left = 5;
  ReplyHandler again = [&](const Reply&) {
    if (--left > 0) {
      device.ask(Request({"hostid"}), again);
    }
  };
  device.ask(Request({"hostid"}), again);
  runUntil([&] { return left == 0; });
  EXPECT_EQ(peer.accepted, 1);
}

TEST_F(ClientTest, RefusedConnectionIsUnreachable) {
  const Address target = peer.target();
  peer.stopListening();
  AsyncDevice device(loop, target, limits);
  device.ask(Request({"hostid"}), keep());
  runUntil([&] { return replies.size() == 1; });
  ASSERT_FALSE(replies[0].answered());
  EXPECT_EQ(replies[0].error().cause(), Cause::connect);
  EXPECT_EQ(replies[0].error().outcome(), Outcome::notSent);
  EXPECT_EQ(replies[0].error().number(), ECONNREFUSED);
}

TEST_F(ClientTest, GarbageIsAProtocolError) {
  peer.heard = [&](int fd, const std::string&) { peer.say(fd, "\x01zz"); };
  AsyncDevice device(loop, peer.target(), limits);
  device.ask(Request({"hostid"}), keep());
  runUntil([&] { return replies.size() == 1; });
  ASSERT_FALSE(replies[0].answered());
  EXPECT_EQ(replies[0].error().kind(), Kind::link);
  EXPECT_FALSE(replies[0].error().transient());
}

TEST_F(ClientTest, AbandonedRequestsAreNotAnswered) {
  bool heard = false;
  AsyncDevice device(loop, peer.target(), limits);
  peer.heard = [&](int fd, const std::string&) {
    heard = true;
    peer.say(fd, answer("late"));
    device.abandon();
  };
  device.ask(Request({"hostid"}), keep());
  runUntil([&] { return heard; });
  EXPECT_EQ(device.pending(), 0U);
  loop.turn(Milliseconds(0));
  loop.turn(Milliseconds(0));
  EXPECT_TRUE(replies.empty());
}

TEST_F(ClientTest, RestartIsCompleteWhenSent) {
  AsyncDevice device(loop, peer.target(), limits);
  device.ask(Request({"restart"}), keep());
  runUntil([&] { return replies.size() == 1; });
  EXPECT_TRUE(replies[0].answered());
}

TEST_F(ClientTest, DryRunDoesNotConnect) {
  std::vector<std::string> payloads;
  AsyncDevice device(loop, peer.target(), limits);
  device.setDryRun([&](const std::string& payload) { payloads.push_back(payload); });
  device.ask(Request({"unlink", "/a"}), keep());
  for (int i = 0; i < 5; ++i) {
    loop.turn(Milliseconds(1));
  }
  EXPECT_EQ(payloads, (std::vector<std::string>{"SlaveTask 2 6:unlink 2:/a 0 0: 0 0 0 0 0"}));
  EXPECT_TRUE(replies.empty());
  EXPECT_EQ(peer.accepted, 0);
}

// A control socket of a master, which the test serves.
class GreetingTest : public ClientTest {
 protected:
  GreetingTest() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = here.file("control");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    EXPECT_TRUE(loop.watch(listener.get(), EPOLLIN, [this](std::uint32_t) {
      far.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      readFar();
    }));
    limits.setMasterSocket(path);
    device = std::make_unique<AsyncDevice>(loop, *Address::parse("@gw-3"), limits);
    device->ask(Request({"hostid"}), keep());
    runUntil([this] { return came == "attach gw-3\n"; });
  }
  ~GreetingTest() override { loop.forget(listener.get()); }

  zell::test::TempDir here;
  zell::UniqueFd listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::unique_ptr<AsyncDevice> device;
};

TEST_F(GreetingTest, MayComeInPieces) {
  peer.say(far.get(), "o");
  turnSome();
  peer.say(far.get(), "k\n");
  runUntil([this] { return countOf(came, "hostid") == 1; });
  peer.say(far.get(), answer("one"));
  runUntil([&] { return replies.size() == 1; });
  EXPECT_EQ(replies[0].output(), "one");
}

TEST_F(GreetingTest, OfTooManyBytesIsCutOff) {
  peer.say(far.get(), std::string(3000, 'x') + "\n");
  runUntil([&] { return replies.size() == 1; });
  EXPECT_EQ(replies[0].error().cause(), Cause::refusedByMaster);
  EXPECT_EQ(replies[0].error().text(), std::string(1024, 'x'));
}

TEST(MasterClientTest, ThePathOfASocketHasALimit) {
  std::string lines;
  const auto error = listDevices("/" + std::string(200, 'x'), Milliseconds(60000), lines);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->number(), ENAMETOOLONG);
}

}  // namespace
}  // namespace runel
