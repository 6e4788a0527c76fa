// SPDX-License-Identifier: Apache-2.0
// Handlers that change the table of connections while the loop walks it.
#include <functional>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// A server with a number of clients. When all are connected, each sends a byte, so that one pass
/// finds them all readable. The cases test that pass.
class InboundReentrancy : public ServerLoop {
 protected:
  static constexpr std::size_t kClients = 5;

  void TearDown() override {
    clients_.clear();
    ServerLoop::TearDown();
  }

  /// Runs one pass in which every socket is readable and @p handler serves each.
  void serveAll(const std::function<void(int fd)>& handler) {
    server_.add_port(kPort, false, true);
    server_.onStarted = [&] {
      for (std::size_t i = 0; i < kClients; ++i) {
        clients_.push_back(connectTo(kPort));
      }
    };
    bool sent = false;
    server_.onData = [&](int fd, const std::string&) {
      served_.push_back(fd);
      handler(fd);
    };
    server_.onLoop = [&] {
      if (sent) {
        ServerBase::s_run = false;
        left_ = server_.inbound();
      } else if (server_.m_connections.size() == kClients) {
        sockets_ = server_.inbound();
        for (const UniqueFd& client : clients_) {
          sendAll(client, "x");
        }
        (void)lines();
        sent = true;
      }
    };
    server_.runUntil([] { return false; });
  }

  /// The sockets at these places of the table.
  [[nodiscard]] std::vector<int> at(const std::vector<std::size_t>& places) const {
    std::vector<int> some;
    for (const std::size_t place : places) {
      some.push_back(sockets_.at(place));
    }
    return some;
  }

  std::vector<UniqueFd> clients_;
  std::vector<int> sockets_;  // all of them, ascending, before the pass
  std::vector<int> served_;   // in the pass
  std::vector<int> left_;     // after it
};

TEST_F(InboundReentrancy, AllAreServedInAscendingOrder) {
  serveAll([](int) {});
  EXPECT_EQ(served_, sockets_);
  EXPECT_EQ(left_, sockets_);
}

TEST_F(InboundReentrancy, AHandlerDropsItsOwn) {
  serveAll([&](int fd) {
    if (fd == sockets_[2]) {
      EXPECT_EQ(server_.drop_socket(fd), -1);
    }
  });
  EXPECT_EQ(served_, sockets_) << "the others are served in the same pass";
  EXPECT_EQ(left_, at({0, 1, 3, 4}));
}

TEST_F(InboundReentrancy, EveryHandlerDropsItsOwn) {
  serveAll([&](int fd) { server_.drop_socket(fd); });
  EXPECT_EQ(served_, sockets_);
  EXPECT_THAT(left_, IsEmpty());
}

TEST_F(InboundReentrancy, AHandlerDropsAnEarlierOne) {
  serveAll([&](int fd) {
    if (fd == sockets_[2]) {
      server_.drop_socket(sockets_[0]);
    }
  });
  EXPECT_EQ(served_, sockets_);
  EXPECT_EQ(left_, at({1, 2, 3, 4}));
}

TEST_F(InboundReentrancy, AHandlerDropsTheNext) {
  serveAll([&](int fd) {
    if (fd == sockets_[1]) {
      server_.drop_socket(sockets_[2]);
    }
  });
  EXPECT_EQ(served_, at({0, 1, 3, 4}));
  EXPECT_EQ(left_, at({0, 1, 3, 4}));
}

TEST_F(InboundReentrancy, AHandlerDropsTheLast) {
  serveAll([&](int fd) {
    if (fd == sockets_[0]) {
      server_.drop_socket(sockets_[4]);
    }
  });
  EXPECT_EQ(served_, at({0, 1, 2, 3}));
}

TEST_F(InboundReentrancy, AHandlerDropsAll) {
  serveAll([&](int) {
    for (const int socket : server_.inbound()) {
      server_.drop_socket(socket);
    }
  });
  EXPECT_EQ(served_, at({0}));
  EXPECT_THAT(left_, IsEmpty());
}

TEST_F(InboundReentrancy, AHandlerDropsAllButItsOwn) {
  serveAll([&](int fd) {
    for (const int socket : server_.inbound()) {
      if (socket != fd) {
        server_.drop_socket(socket);
      }
    }
  });
  EXPECT_EQ(served_, at({0}));
  EXPECT_EQ(left_, at({0}));
}

TEST_F(InboundReentrancy, AHandlerDropsItsOwnTwice) {
  serveAll([&](int fd) {
    if (fd == sockets_[0]) {
      EXPECT_EQ(server_.drop_socket(fd), -1);
      EXPECT_EQ(server_.drop_socket(fd), 0);
    }
  });
  EXPECT_EQ(served_, sockets_);
}

// The kernel assigns the lowest free number: the new connection has that of the dropped one.
TEST_F(InboundReentrancy, AConnectionMadeInsideAHandlerWaitsForTheNextPass) {
  int fresh = -1;
  serveAll([&](int fd) {
    if (fd != sockets_[0]) {
      return;
    }
    server_.drop_socket(sockets_[4]);
    const int pair = fcntl(sockets_[1], F_DUPFD_CLOEXEC, 0);  // readable at once
    fresh = pair;
    server_.m_connections[pair] = Connection{kPort, false, true, 9, pair, "10.0.0.1"};
  });
  EXPECT_EQ(fresh, sockets_[4]) << "the number was to be used again";
  EXPECT_EQ(served_, at({0, 1, 2, 3}));
  EXPECT_EQ(left_, sockets_);
}

// The dropped connection had urgent data, which does not belong to the new one.
TEST_F(InboundReentrancy, AConnectionMadeInsideAHandlerDoesNotInheritTheExceptionalCondition) {
  int fresh = -1;
  server_.onSelect = [&](int /*result*/) {
    if (!sockets_.empty()) {
      FD_SET(sockets_[4], &server_.m_except_set);
    }
    return false;
  };
  serveAll([&](int fd) {
    if (fd == sockets_[0]) {
      clients_.push_back(connectTo(kPort));
      server_.drop_socket(sockets_[4]);
      server_.process_socket(listener(kPort));
      fresh = server_.inbound().back();
    }
  });
  EXPECT_EQ(fresh, sockets_[4]) << "the number was to be used again";
  EXPECT_EQ(log.countContaining("disconnected"), 0);
  EXPECT_EQ(left_.size(), kClients);
}

TEST_F(InboundReentrancy, AHandlerClosesAllConnections) {
  serveAll([&](int) { server_.close_connections(-1); });
  EXPECT_EQ(served_, at({0}));
  EXPECT_THAT(left_, IsEmpty());
}

TEST_F(InboundReentrancy, AHandlerClosesTheListeners) {
  serveAll([&](int) { server_.close_listeners(); });
  EXPECT_EQ(served_, at({0}));
  EXPECT_THAT(server_.m_listeners, IsEmpty());
}

TEST_F(ServerLoop, AnIncomingConnectionIsDroppedInItsOwnHandler) {
  server_.add_port(kPort, false, true);
  server_.add_port(kOtherPort, false, true);
  std::vector<UniqueFd> clients;
  server_.onStarted = [&] {
    clients.push_back(connectTo(kPort));
    clients.push_back(connectTo(kOtherPort));
    sendAll(clients[0], "x");
  };
  server_.onIncoming = [&](int fd) { server_.drop_socket(fd); };
  server_.runUntil([&] { return server_.count("timeout") == 1; });
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_EQ(log.countContaining("dropping connection"), 2);
  EXPECT_THAT(server_.calls, Not(Contains(HasSubstr("data"))));
  for (const UniqueFd& client : clients) {
    EXPECT_TRUE(isClosedByPeer(client));
  }
}

TEST_F(ServerLoop, AnIncomingHandlerClosesTheListenersBehindIt) {
  server_.add_port(kPort, false, true);
  server_.add_port(kOtherPort, false, true);
  std::vector<UniqueFd> clients;
  server_.onStarted = [&] {
    clients.push_back(connectTo(kPort));
    clients.push_back(connectTo(kOtherPort));
  };
  server_.onIncoming = [&](int) { server_.close_listeners(); };
  server_.runPasses(2);
  EXPECT_EQ(log.countContaining("accepted connection"), 1);
  EXPECT_EQ(log.countContaining("unable to accept"), 0);
}

TEST_F(ServerLoop, AReadingSubclassDropsItsOwnAndReportsItAlive) {
  server_.add_port(kPort, false, false);
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    sendAll(client, "x");
  };
  server_.onReadable = [&](int fd) { return server_.drop_socket(fd), true; };
  server_.runUntil([&] { return log.countContaining("dropping connection") == 1; });
  EXPECT_TRUE(log.texts(3).empty()) << "it was to be dropped twice";
}

TEST_F(ServerLoop, ADeviceHandlerDropsReadableConnections) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_port(kPort, false, true);
  server_.add_device(device.path());
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  server_.onIncoming = [&](int) {
    device.write("x");
    sendAll(client, "x");
  };
  server_.onDevice = [&](const std::string&, int fd) {
    (void)readFrom(fd);
    server_.drop_socket(server_.inbound().at(0));
  };
  server_.runUntil([&] { return log.countContaining("dropping connection") == 1; });
  EXPECT_THAT(server_.calls, Not(Contains(HasSubstr("data"))));
  EXPECT_EQ(log.countContaining("huge problem"), 0);
}

}  // namespace
}  // namespace zell::test
