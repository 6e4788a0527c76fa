// SPDX-License-Identifier: Apache-2.0
// One pass of the loop: the watched descriptors, and the order of service.
#include <algorithm>
#include <chrono>

#include <fcntl.h>
#include <unistd.h>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

TEST_F(HostLoop, DispatchesListenersDevicesConnectionsAndHostsInThatOrder) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_port(kPort, false, true);
  server_.add_device(device.path());
  UniqueFd far;
  std::vector<UniqueFd> clients;
  server_.onStarted = [&] {
    far = acceptFrom(master_);
    clients.push_back(connectTo(kPort));
  };
  server_.onDevice = [](const std::string&, int fd) { (void)readFrom(fd); };
  bool sent = false;
  server_.onLoop = [&] {
    if (!sent && server_.m_connections.size() == 1) {
      sendAll(far, "host");
      sendAll(clients[0], "inbound");
      device.write("device");
      clients.push_back(connectTo(kPort));
      server_.calls.clear();
      sent = true;
    }
  };
  server_.runUntil([&] { return server_.m_connections.size() == 2; });
  ASSERT_EQ(server_.calls.size(), 7U);
  EXPECT_EQ(server_.calls[0], "select 4");
  EXPECT_EQ(server_.calls[1].substr(0, 8), "incoming");
  EXPECT_EQ(server_.calls[2].substr(0, 6), "device");
  EXPECT_EQ(server_.calls[3].substr(server_.calls[3].size() - 7), "inbound");
  EXPECT_EQ(server_.calls[4].substr(server_.calls[4].size() - 4), "host");
  EXPECT_EQ(server_.calls[5], "loop");
  EXPECT_EQ(server_.calls[6], "shutdown");
}

TEST_F(HostLoop, PassesTheHighestDescriptorOfAnyKindToSelect) {
  const TempDir directory;
  const Fifo device(directory, "device");
  server_.add_port(kPort, false, true);
  server_.add_port(kOtherPort, true, true);
  server_.add_device(device.path());
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  server_.onSelect = [&](int) {
    int highest = std::max(listener(kPort), server_.m_device_fds.at(device.path()));
    highest = std::max({highest, server_.inbound().back(), server_.hostSocket(0)});
    EXPECT_EQ(server_.m_max_fd, highest);
    return false;
  };
  server_.runUntil([&] { return server_.m_connections.size() == 2; });
}

TEST_F(ServerLoop, StartsEachPassWithEmptySets) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  server_.onSelect = [&](int result) {
    if (result == 0) {
      for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        EXPECT_FALSE(FD_ISSET(fd, &server_.m_read_set)) << fd;
        EXPECT_FALSE(FD_ISSET(fd, &server_.m_except_set)) << fd;
      }
    }
    return false;
  };
  server_.runUntil([&] { return server_.count("timeout") == 2; });
  EXPECT_EQ(server_.count("select 1"), 1);
}

TEST_F(ServerLoop, WatchesNothingWithoutDescriptors) {
  server_.onSelect = [&](int) {
    EXPECT_EQ(server_.m_max_fd, 0);
    return false;
  };
  server_.m_max_fd = 77;
  server_.runPasses(1);
}

TEST_F(ServerLoop, WatchesTheNumberZeroOnlyForAHost) {
  server_.m_connections[0] = Connection{kPort, false, true, 9, 0, ""};
  server_.add_host("127.0.0.1", kMasterPort);
  const UniqueFd saved(fcntl(0, F_DUPFD_CLOEXEC, 3));
  int pipe[2] = {-1, -1};
  ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
  const UniqueFd in(pipe[1]);
  ASSERT_EQ(dup2(pipe[0], 0), 0);
  ASSERT_EQ(close(pipe[0]), 0);
  ASSERT_EQ(write(in.get(), "x", 1), 1);
  std::vector<int> results;
  server_.onSelect = [&](int result) { return results.push_back(result), false; };
  server_.onStarted = [&] { server_.m_hosts.front().socket = -1; };
  server_.runPasses(1);
  server_.m_connections[0] = Connection{kPort, false, true, 9, 0, ""};
  server_.add_host("127.0.0.1", kMasterPort);
  server_.onStarted = [&] { server_.m_hosts.front().socket = 0; };
  server_.onLoop = [&] { server_.m_hosts.front().socket = -1; };
  server_.runPasses(1);
  EXPECT_THAT(results, ElementsAre(0, 1)) << "not as a connection, but as a host";
  EXPECT_THAT(server_.calls, Not(Contains(HasSubstr("data"))));
  EXPECT_EQ(dup2(saved.get(), 0), 0);
}

TEST_F(ServerLoop, ReportsATimeout) {
  server_.runPasses(2);
  EXPECT_THAT(server_.calls, ElementsAre("startup", "started", "select 0", "timeout", "loop",
                                         "select 0", "timeout", "loop", "shutdown"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerLoop, PassesTheSetTimeoutToSelectEveryTime) {
  server_.set_timeout(40);
  const auto start = std::chrono::steady_clock::now();
  server_.runPasses(3);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(120));
  EXPECT_EQ(server_.m_timeout.tv_usec, 40000) << "select may change a copy only";
}

TEST_F(HostLoop, ServesNothingWhenTheSubclassHandlesSelect) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    acceptFrom(master_).reset();
    server_.add_host("127.0.0.1", kMasterPort);
  };
  int passes = 0;
  server_.onSelect = [&](int) {
    if (++passes == 5) {
      ServerBase::s_run = false;
    }
    return true;
  };
  server_.runUntil([] { return false; });
  EXPECT_EQ(passes, 5);
  EXPECT_EQ(server_.count("loop"), 0);
  EXPECT_EQ(server_.events().size(), 4U) << "startup, outgoing, started, shutdown";
}

}  // namespace
}  // namespace zell::test
