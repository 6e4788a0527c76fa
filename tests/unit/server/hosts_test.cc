// SPDX-License-Identifier: Apache-2.0
// Connecting to hosts, and the time limit for hosts that do not answer.
#include <chrono>
#include <utility>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "unit/server/peers.h"
#include "unit/server/recording_server.h"
#include "unit/server/server_test.h"

namespace zell::test {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ServerHosts : public ServerTest {
 protected:
  ~ServerHosts() override { log.clear(); }

  void TearDown() override {
    server_.close_hosts();
    ServerTest::TearDown();
  }

  /// The real duration of one connect_hosts.
  milliseconds connectAll() {
    sys.clock = [] { return steady_clock::now().time_since_epoch(); };
    const auto start = steady_clock::now();
    server_.connect_hosts();
    return duration_cast<milliseconds>(steady_clock::now() - start);
  }

  RecordingServer server_;
};

TEST_F(ServerHosts, AreConnectedWithKeepaliveBeforeTheHandlerIsCalled) {
  const UniqueFd master = listenOn(kMasterPort);
  server_.add_host("127.0.0.1", kMasterPort);
  int during = -2;
  server_.onOutgoing = [&](int) { during = server_.hostSocket(0); };
  server_.connect_host(server_.m_hosts.front());
  const int fd = server_.hostSocket(0);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(during, fd) << "the host's socket is set before the call";
  EXPECT_EQ(optionOf(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(optionOf(fd, IPPROTO_TCP, TCP_KEEPCNT), 5);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_THAT(server_.calls, ElementsAre("outgoing " + std::to_string(fd)));
  EXPECT_THAT(lines(),
              ElementsAre("INFO (PID) established connection to 127.0.0.1, port 6012, socket " +
                          std::to_string(fd)));
}

TEST_F(ServerHosts, HaveKeepaliveBeforeTheConnectionIsLogged) {
  const UniqueFd master = listenOn(kMasterPort);
  server_.add_host("127.0.0.1", kMasterPort);
  std::vector<int> options;
  log.onEntry = [&](const LogEntry& line) {
    const int fd = lastNumber(line.text);
    options = {optionOf(fd, SOL_SOCKET, SO_KEEPALIVE), optionOf(fd, IPPROTO_TCP, TCP_KEEPIDLE),
               optionOf(fd, IPPROTO_TCP, TCP_KEEPINTVL), optionOf(fd, IPPROTO_TCP, TCP_KEEPCNT)};
  };
  server_.connect_hosts();
  log.onEntry = nullptr;
  EXPECT_THAT(options, ElementsAre(1, 10, 10, 5));
  EXPECT_EQ(log.entries().size(), 1U);
}

TEST_F(ServerHosts, AreDialledAtTheFirstOfTheirAddressesOnly) {
  const UniqueFd second = listenOn(kMasterPort);
  sys.fakeLookup = true;
  sys.lookupAddresses = {in_addr{htonl(INADDR_LOOPBACK + 1)}, in_addr{htonl(INADDR_LOOPBACK)}};
  server_.add_host("two", kMasterPort);
  server_.connect_hosts();
  EXPECT_EQ(server_.hostSocket(0), -1) << "the second address was dialled";
  std::swap(sys.lookupAddresses[0], sys.lookupAddresses[1]);
  server_.connect_hosts();
  EXPECT_GT(server_.hostSocket(0), 0);
}

TEST_F(ServerHosts, LeaveNoTimeoutOnTheSocket) {
  const UniqueFd master = listenOn(kMasterPort);
  server_.add_host("127.0.0.1", kMasterPort);
  server_.connect_hosts();
  timeval limit{9, 9};
  socklen_t length = sizeof limit;
  ASSERT_EQ(getsockopt(server_.hostSocket(0), SOL_SOCKET, SO_SNDTIMEO, &limit, &length), 0);
  EXPECT_EQ(limit.tv_sec, 0);
  EXPECT_EQ(limit.tv_usec, 0);
}

TEST_F(ServerHosts, ThatRefuseStayUnconnectedWithoutALogLine) {
  server_.add_host("127.0.0.1", kMasterPort);
  server_.connect_hosts();
  EXPECT_EQ(server_.hostSocket(0), -1);
  EXPECT_THAT(server_.calls, IsEmpty());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerHosts, ThatCannotBeResolvedAreLogged) {
  sys.fakeLookup = true;
  sys.lookupResult = -1;
  sys.lookupError = TRY_AGAIN;
  server_.add_host("nobody", kMasterPort);
  server_.connect_hosts();
  EXPECT_EQ(server_.hostSocket(0), -1);
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) resolve_master: cannot resolve name, nobody, 2 Host "
                                   "name lookup failure",
                                   "ERR (PID) cannot resolve host 'nobody'"));
}

TEST_F(ServerHosts, ThatGetNoSocketAreLoggedWithTheError) {
  server_.add_host("127.0.0.1", kMasterPort);
  sockaddr_in address{};  // the first lookup reads the resolver's configuration
  ASSERT_EQ(server_.resolve_master(server_.m_hosts.front(), &address), 0);
  const DescriptorLimit limit(static_cast<int>(openDescriptors().size()));
  const NumbersTaken taken(1024);
  server_.connect_host(server_.m_hosts.front());
  EXPECT_EQ(server_.hostSocket(0), -1);
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) failed to open socket: 24 Too many open files"));
}

TEST_F(ServerHosts, AreConnectedInListOrderAndOnlyWhenUnconnected) {
  const UniqueFd master = listenOn(kMasterPort);
  const UniqueFd other = listenOn(kPort);
  server_.add_host("127.0.0.1", kMasterPort);
  server_.add_host("127.0.0.1", kOtherPort);  // not listening
  server_.add_host("localhost", kPort);
  server_.connect_hosts();
  server_.connect_hosts();
  EXPECT_EQ(server_.hostSocket(1), -1);
  EXPECT_THAT(server_.calls, ElementsAre("outgoing " + std::to_string(server_.hostSocket(0)),
                                         "outgoing " + std::to_string(server_.hostSocket(2))));
  EXPECT_THAT(lines(),
              ElementsAre("INFO (PID) established connection to 127.0.0.1, port 6012, socket " +
                              std::to_string(server_.hostSocket(0)),
                          "INFO (PID) established connection to localhost, port 6001, socket " +
                              std::to_string(server_.hostSocket(2))));
}

TEST_F(ServerHosts, WithTheSameNameAndPortGetSeparateConnections) {
  const UniqueFd master = listenOn(kMasterPort);
  server_.add_host("127.0.0.1", kMasterPort);
  server_.add_host("127.0.0.1", kMasterPort);
  server_.connect_hosts();
  const UniqueFd first = acceptFrom(master);
  const UniqueFd second = acceptFrom(master);
  EXPECT_TRUE(first.valid() && second.valid());
  EXPECT_NE(server_.hostSocket(0), server_.hostSocket(1));
  EXPECT_EQ(server_.calls.size(), 2U);
}

TEST_F(ServerHosts, ThatDropPacketsCostThreeSecondsInTotal) {
  const BlackHole hole(kMasterPort);
  const UniqueFd answering = listenOn(kPort);
  server_.add_host("127.0.0.1", kMasterPort);
  server_.add_host("127.0.0.1", kMasterPort);
  server_.add_host("127.0.0.1", kMasterPort);
  server_.add_host("127.0.0.1", kPort);
  const milliseconds took = connectAll();
  EXPECT_EQ(server_.hostSocket(0), -1);
  EXPECT_GT(server_.hostSocket(3), 0) << "a host behind the silent ones was not tried";
  EXPECT_GE(took, milliseconds(2900));
  EXPECT_LT(took, milliseconds(5900)) << "each silent host got a time of its own";
  EXPECT_EQ(server_.calls.size(), 1U);
}

// Only connect() counts against the timeout. Otherwise a slow resolver would leave only the minimum
// time for each connect, too little for a distant master.
TEST_F(ServerHosts, GetTheirFullTimeAfterASlowOperation) {
  const UniqueFd master = listenOn(kPort);
  const BlackHole hole(kMasterPort);
  server_.add_host("127.0.0.1", kPort);
  server_.add_host("127.0.0.1", kMasterPort);
  server_.onOutgoing = [&](int) { sys.now += std::chrono::seconds(60); };
  const auto start = steady_clock::now();
  server_.connect_hosts();
  EXPECT_GE(steady_clock::now() - start, milliseconds(2900));
  EXPECT_EQ(server_.hostSocket(1), -1);
}

}  // namespace
}  // namespace zell::test
