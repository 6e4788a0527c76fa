// SPDX-License-Identifier: Apache-2.0
// Descriptors run out, or their numbers exceed FD_SETSIZE.
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "unit/server/failing_accept.h"
#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kFirstRefused = FD_SETSIZE - 64;

/// The lowest free descriptor number.
int firstFree() {
  return UniqueFd(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)).get();
}

TEST_F(ServerLoop, AcceptsASurplusConnectionWithTheReserveAndClosesIt) {
  server_.add_port(kPort, false, true);
  std::vector<UniqueFd> clients;
  std::unique_ptr<DescriptorLimit> limit;
  std::unique_ptr<NumbersTaken> taken;
  server_.onStarted = [&] {
    clients.push_back(connectTo(kPort));
    clients.push_back(connectTo(kPort));
    limit = std::make_unique<DescriptorLimit>(100);
    taken = std::make_unique<NumbersTaken>(100);
    (void)lines();
  };
  server_.runUntil([&] { return server_.count("timeout") == 3; });
  taken.reset();
  limit.reset();
  const std::string line =
      "ERR (PID) unable to accept incoming connection, accept: Too many open files";
  std::vector<std::string> all = lines();
  all.pop_back();  // closing the listening socket
  EXPECT_THAT(all, ElementsAre(line, line)) << "one line for each connection, and no spinning";
  EXPECT_EQ(server_.count("select 1"), 2);
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_TRUE(isClosedByPeer(clients[0]));
  EXPECT_TRUE(isClosedByPeer(clients[1]));
}

TEST_F(ServerLoop, UsesTheReserveWhenTheSystemIsOutOfDescriptors) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  std::unique_ptr<FailingAccept> accepting;
  std::vector<std::size_t> open;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    EXPECT_TRUE(becomesReadable(listener(kPort)));
    (void)lines();
    accepting = std::make_unique<FailingAccept>(ENFILE);
    accepting->before = [&] { open.push_back(openDescriptors().size()); };
  };
  server_.runUntil([&] { return server_.count("timeout") == 1; });
  ASSERT_EQ(open.size(), 2U);
  EXPECT_EQ(open[1], open[0] - 1) << "the reserve was not given up before the second attempt";
  EXPECT_EQ(lines().front(),
            "ERR (PID) unable to accept incoming connection, accept: "
            "Too many open files in system");
  EXPECT_EQ(server_.events(), (std::vector<std::string>{"startup", "started", "shutdown"}));
  EXPECT_TRUE(isClosedByPeer(client));
}

TEST_F(ServerLoop, KeepsTheReserveWhenAcceptFailsForAnotherReason) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  std::unique_ptr<FailingAccept> accepting;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    EXPECT_TRUE(becomesReadable(listener(kPort)));
    accepting = std::make_unique<FailingAccept>(ENOBUFS);
  };
  server_.runUntil([&] { return server_.count("timeout") == 1; });
  EXPECT_EQ(log.countContaining("unable to accept"), 1);
  EXPECT_EQ(log.countContaining("accepted connection"), 1) << "the waiting connection was lost";
}

TEST_F(ServerLoop, AcceptsAgainWhenDescriptorsAreFree) {
  server_.add_port(kPort, false, true);
  std::vector<UniqueFd> clients;
  std::unique_ptr<DescriptorLimit> limit;
  std::unique_ptr<NumbersTaken> taken;
  server_.onStarted = [&] {
    clients.push_back(connectTo(kPort));
    limit = std::make_unique<DescriptorLimit>(100);
    taken = std::make_unique<NumbersTaken>(100);
  };
  server_.onLoop = [&] {
    if (clients.size() == 1) {
      taken.reset();
      limit.reset();
      clients.push_back(connectTo(kPort));
    }
  };
  server_.runUntil([&] { return server_.m_connections.size() == 1; });
  EXPECT_EQ(log.countContaining("unable to accept"), 1);
}

class NumberLimit : public HostLoop {
 protected:
  void SetUp() override {
    HostLoop::SetUp();
    server_.m_hosts.clear();
    server_.add_port(kPort, false, true);
    limit_ = std::make_unique<DescriptorLimit>(FD_SETSIZE + 200);
  }

  void TearDown() override {
    taken_.reset();
    limit_.reset();
    HostLoop::TearDown();
  }

  /// Leaves @p number as the lowest free descriptor.
  void makeFirstFree(int number) {
    taken_ = std::make_unique<NumbersTaken>(number);
    ASSERT_EQ(firstFree(), number);
  }

  std::unique_ptr<DescriptorLimit> limit_;
  std::unique_ptr<NumbersTaken> taken_;
};

TEST_F(NumberLimit, AcceptsTheLastNumberBelowIt) {
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    makeFirstFree(kFirstRefused - 1);
  };
  server_.runUntil([&] { return server_.count("timeout") == 1; });
  EXPECT_EQ(server_.count("incoming 959"), 1);
  EXPECT_EQ(log.countContaining("too many connections"), 0);
}

TEST_F(NumberLimit, ClosesAnAcceptedSocketAtIt) {
  UniqueFd client;
  std::string accepting;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    accepting = std::to_string(listener(kPort));
    makeFirstFree(kFirstRefused);
    (void)lines();
  };
  server_.runUntil([&] { return server_.count("timeout") == 1; });
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_TRUE(isClosedByPeer(client));
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) accepted connection, accept on socket " + accepting +
                                       " from 127.0.0.1, new socket 960",
                                   "WARNING (PID) too many connections, closing socket 960",
                                   "INFO (PID) closing listening socket " + accepting));
  EXPECT_THAT(server_.events(), ElementsAre("startup", "started", "shutdown"));
}

TEST_F(NumberLimit, ClosesAnOutboundSocketAtItOnEveryPass) {
  server_.add_host("127.0.0.1", kMasterPort);
  server_.onStartup = [&] { makeFirstFree(kFirstRefused); };
  server_.m_ports.clear();
  server_.runPasses(1);
  EXPECT_THAT(server_.events(), ElementsAre("startup", "started", "shutdown"));
  const std::string made =
      "INFO (PID) established connection to 127.0.0.1, port 6012, socket 961";  // 960: reserve
  const std::string closed = "WARNING (PID) too many connections, closing socket 961";
  EXPECT_THAT(lines(), ElementsAre(made, closed, made, closed));
}

TEST_F(NumberLimit, ConnectsAnOutboundSocketBelowIt) {
  server_.add_host("127.0.0.1", kMasterPort);
  server_.m_ports.clear();
  server_.onStartup = [&] { makeFirstFree(kFirstRefused - 2); };
  server_.runPasses(1);
  EXPECT_EQ(server_.count("outgoing 959"), 1);
}

// A subclass may add any descriptor to the tables: the loop skips those that select() cannot hold.
TEST_F(NumberLimit, WatchesNoNumberAboveTheSets) {
  const int high = fcntl(master_.get(), F_DUPFD_CLOEXEC, FD_SETSIZE);
  ASSERT_GE(high, FD_SETSIZE);
  const UniqueFd client = connectTo(kMasterPort);  // makes it readable
  server_.onStarted = [&] {
    server_.m_connections[high] = Connection{kPort, false, true, 9, high, ""};
    server_.m_hosts.push_back(Host{"127.0.0.1", kMasterPort, high});
    server_.m_listeners[high] = kPort;
    server_.m_device_fds["/high"] = high;
    server_.m_devices.emplace_back("/high");
  };
  server_.onSelect = [&](int result) {
    EXPECT_EQ(result, 0);
    EXPECT_LT(server_.m_max_fd, FD_SETSIZE);
    return false;
  };
  server_.onLoop = [&] {
    server_.m_hosts.clear();
    server_.m_listeners.erase(high);
    server_.m_devices.clear();
  };
  server_.runPasses(1);
  EXPECT_EQ(fcntl(high, F_GETFD), -1) << "it is closed with the others";
}

// A drop of such a number must not write beyond the sets; the sanitizer detects that.
TEST_F(NumberLimit, DropsNumbersAboveTheSets) {
  const int high = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, FD_SETSIZE + 100);
  server_.m_connections[high] = Connection{kPort, false, true, 9, high, ""};
  EXPECT_EQ(server_.drop_socket(high), -1);
  const int other = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, FD_SETSIZE + 100);
  server_.add_host("a", 1);
  server_.m_hosts.front().socket = other;
  EXPECT_EQ(server_.drop_host_connection(other), -1);
  EXPECT_EQ(fcntl(high, F_GETFD), -1);
  EXPECT_EQ(fcntl(other, F_GETFD), -1);
}

// Detects such a write without a sanitizer: the bits after a set belong to other members.
TEST_F(NumberLimit, DoesNotChangeTheSetsWhenSuchANumberIsDropped) {
  for (const int number : {FD_SETSIZE, FD_SETSIZE + 1, FD_SETSIZE + 100}) {
    const int high = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, number);
    ASSERT_EQ(high, number);
    server_.m_connections[high] = Connection{kPort, false, true, 9, high, ""};
    std::memset(&server_.m_read_set, 0xff, sizeof server_.m_read_set);
    std::memset(&server_.m_except_set, 0xff, sizeof server_.m_except_set);
    server_.m_max_fd = -1;
    EXPECT_EQ(server_.drop_socket(high), -1);
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
      ASSERT_TRUE(FD_ISSET(fd, &server_.m_read_set) && FD_ISSET(fd, &server_.m_except_set)) << fd;
    }
    EXPECT_EQ(server_.m_max_fd, -1);
  }
}

TEST_F(NumberLimit, ServesNoSuchNumberForAnyMemoryAfterTheSets) {
  const int high = fcntl(master_.get(), F_DUPFD_CLOEXEC, FD_SETSIZE);
  ASSERT_EQ(high, FD_SETSIZE);
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    server_.m_connections[high] = Connection{kPort, false, true, 9, high, ""};
    server_.m_hosts.push_back(Host{"127.0.0.1", kMasterPort, high});
    server_.m_device_fds["/missing"] = -1;
    server_.m_devices.emplace_back("/missing");
  };
  server_.onSelect = [&](int /*result*/) {
    FD_SET(0, &server_.m_except_set);  // the bit of `high` in the set of readable descriptors
    server_.m_max_fd = -1;             // and in the set of exceptional ones
    FD_SET(63, &server_.m_read_set);   // a shift by -1
    FD_SET(63, &server_.m_except_set);
    return false;
  };
  server_.onLoop = [&] { server_.m_hosts.clear(); };
  server_.runPasses(1);
  EXPECT_EQ(server_.count("select 1"), 1);
  EXPECT_EQ(server_.count("drop " + std::to_string(high)), 0);
  EXPECT_EQ(server_.count("device /missing -1"), 0);
  EXPECT_EQ(log.countContaining("disconnected"), 0);
  EXPECT_EQ(log.countContaining("recvfrom"), 0);
}

}  // namespace
}  // namespace zell::test
