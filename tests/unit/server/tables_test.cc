// SPDX-License-Identifier: Apache-2.0
// The initial state of a server, and changes of its tables and settings.
#include <syslog.h>

#include "unit/server/peers.h"
#include "unit/server/recording_server.h"
#include "unit/server/server_test.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Read before main, so that no test has changed them.
const bool kRunAtStart = ServerBase::s_run;
const int kSignalAtStart = ServerBase::s_signal;

bool isEmpty(const fd_set& set) {
  for (int fd = 0; fd < FD_SETSIZE; ++fd) {
    if (FD_ISSET(fd, &set)) {
      return false;
    }
  }
  return true;
}

std::vector<std::string> hostsOf(const OpenServer& server) {
  std::vector<std::string> hosts;
  for (const Host& host : server.m_hosts) {
    hosts.push_back(host.name + ":" + std::to_string(host.port) + " " +
                    std::to_string(host.socket));
  }
  return hosts;
}

class ServerTables : public ServerTest {
 protected:
  OpenServer server_{"tables"};
};

TEST_F(ServerTables, StartEmpty) {
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_THAT(server_.m_device_fds, IsEmpty());
  EXPECT_THAT(server_.m_devices, IsEmpty());
  EXPECT_THAT(server_.m_ports, IsEmpty());
  EXPECT_THAT(server_.m_listeners, IsEmpty());
  EXPECT_THAT(server_.m_hosts, IsEmpty());
  EXPECT_TRUE(isEmpty(server_.m_read_set));
  EXPECT_TRUE(isEmpty(server_.m_except_set));
  EXPECT_EQ(server_.m_max_fd, 0);
}

TEST_F(ServerTables, StartWithTheDefaultSettings) {
  EXPECT_FALSE(server_.m_use_timeout);
  EXPECT_EQ(server_.m_timeout.tv_sec, 2);
  EXPECT_EQ(server_.m_timeout.tv_usec, 0);
  EXPECT_EQ(server_.m_child_pid, 0);
  EXPECT_EQ(server_.m_pid_fp, nullptr);
  EXPECT_EQ(server_.m_read_buffer, nullptr);
  EXPECT_EQ(server_.m_read_buffer_size, 0U);
  EXPECT_EQ(server_.m_log_facility, 48);
  EXPECT_EQ(server_.log_facility(), LOG_LPR);
  EXPECT_FALSE(server_.m_daemon);
  EXPECT_FALSE(server_.is_daemon());
}

TEST_F(ServerTables, NameThePidFileAfterTheServer) {
  EXPECT_EQ(server_.m_name, "tables");
  EXPECT_EQ(server_.m_pid_file, "/var/run/tables.pid");
}

TEST_F(ServerTables, HoldOneTcpPortWhenConstructedWithOne) {
  const OpenServer server("tables", kPort);
  ASSERT_EQ(server.m_ports.size(), 1U);
  const Port& port = server.m_ports.at(kPort);
  EXPECT_EQ(port.port, kPort);
  EXPECT_FALSE(port.udp);
  EXPECT_TRUE(port.read);
  EXPECT_EQ(server.m_pid_file, "/var/run/tables.pid");
  EXPECT_EQ(server.m_timeout.tv_sec, 2);
  EXPECT_EQ(server.m_log_facility, 48);
}

TEST_F(ServerTables, ReleaseTheirDescriptorsOpenWhenTheServerIsDestroyed) {
  const UniqueFd listener = listenOn(kMasterPort);
  int socket = -1;
  {
    OpenServer server("tables");
    server.add_host("127.0.0.1", kMasterPort);
    server.connect_hosts();
    socket = server.hostSocket(0);
  }
  EXPECT_GT(localPort(socket), 0);
  const UniqueFd closing(socket);
}

TEST(ServerRecordsTest, TheFlagsStartClear) {
  EXPECT_FALSE(kRunAtStart);
  EXPECT_EQ(kSignalAtStart, -1);
}

TEST(ServerRecordsTest, ANewConnectionHasNoPortAndNoSocket) {
  const Connection connection;
  EXPECT_EQ(connection.port, -1);
  EXPECT_FALSE(connection.udp);
  EXPECT_TRUE(connection.read);
  EXPECT_EQ(connection.incoming, -1);
  EXPECT_EQ(connection.handle, -1);
  EXPECT_EQ(connection.ip, "");
}

TEST_F(ServerTables, AddAPortWithItsFlags) {
  server_.add_port(kPort, true, false);
  const Port& port = server_.m_ports.at(kPort);
  EXPECT_EQ(port.port, kPort);
  EXPECT_TRUE(port.udp);
  EXPECT_FALSE(port.read);
}

TEST_F(ServerTables, ReplaceTheFlagsOfAnExistingPort) {
  server_.add_port(kPort, false, true);
  server_.add_port(kPort, true, false);
  ASSERT_EQ(server_.m_ports.size(), 1U);
  EXPECT_TRUE(server_.m_ports.at(kPort).udp);
  EXPECT_FALSE(server_.m_ports.at(kPort).read);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerTables, RefuseAPortWhileTheLoopRuns) {
  ServerBase::s_run = true;
  server_.add_port(kPort, false, true);
  EXPECT_THAT(server_.m_ports, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) cannot add a new port once we have started '6001'"));
}

TEST_F(ServerTables, RefuseToChangeAPortWhileTheLoopRuns) {
  server_.add_port(kPort, false, true);
  ServerBase::s_run = true;
  server_.add_port(kPort, true, false);
  EXPECT_FALSE(server_.m_ports.at(kPort).udp);
  EXPECT_TRUE(server_.m_ports.at(kPort).read);
}

TEST_F(ServerTables, KeepDevicesInOrderWithDuplicates) {
  server_.add_device("/dev/b");
  server_.add_device("/dev/a");
  server_.add_device("/dev/b");
  EXPECT_THAT(server_.m_devices, ElementsAre("/dev/b", "/dev/a", "/dev/b"));
  EXPECT_THAT(server_.m_device_fds, IsEmpty());
}

TEST_F(ServerTables, RefuseADeviceWhileTheLoopRuns) {
  ServerBase::s_run = true;
  server_.add_device("/dev/a");
  EXPECT_THAT(server_.m_devices, IsEmpty());
  EXPECT_THAT(lines(),
              ElementsAre("INFO (PID) cannot add a new device once we have started '/dev/a'"));
}

TEST_F(ServerTables, AppendHostsUnconnected) {
  server_.add_host("b", 2);
  server_.add_host("a", 1);
  EXPECT_THAT(hostsOf(server_), ElementsAre("b:2 -1", "a:1 -1"));
}

TEST_F(ServerTables, KeepAHostThatIsAddedTwiceTwice) {
  server_.add_host("a", 1);
  server_.add_host("a", 1);
  EXPECT_THAT(hostsOf(server_), ElementsAre("a:1 -1", "a:1 -1"));
}

TEST_F(ServerTables, RefuseAHostWithoutAName) {
  server_.add_host("", 1);
  EXPECT_THAT(server_.m_hosts, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) adding empty host, ignoring"));
}

TEST_F(ServerTables, AcceptHostsWhileTheLoopRuns) {
  ServerBase::s_run = true;
  server_.add_host("a", 1);
  EXPECT_THAT(hostsOf(server_), ElementsAre("a:1 -1"));
  server_.remove_host("a", 1);
  EXPECT_THAT(server_.m_hosts, IsEmpty());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerTables, RemoveTheFirstUnconnectedHostOfThatNameAndPort) {
  for (const int port : {1, 2, 1, 1}) {
    server_.add_host("a", port);
  }
  server_.add_host("b", 1);
  server_.m_hosts.front().socket = 77;
  server_.remove_host("a", 1);
  EXPECT_THAT(hostsOf(server_), ElementsAre("a:1 77", "a:2 -1", "a:1 -1", "b:1 -1"));
}

TEST_F(ServerTables, KeepConnectedAndOtherHosts) {
  server_.add_host("a", 1);
  server_.m_hosts.front().socket = 77;
  server_.remove_host("a", 1);
  server_.remove_host("a", 2);
  server_.remove_host("b", 1);
  EXPECT_THAT(hostsOf(server_), ElementsAre("a:1 77"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerTables, AcceptALogFacilityOnlyBeforeTheLoopRuns) {
  server_.set_log_facility(LOG_LOCAL5);
  EXPECT_EQ(server_.log_facility(), LOG_LOCAL5);
  ServerBase::s_run = true;
  server_.set_log_facility(LOG_USER);
  EXPECT_EQ(server_.log_facility(), LOG_LOCAL5);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerTables, SplitATimeoutIntoSecondsAndMicroseconds) {
  server_.set_timeout(2345);
  EXPECT_EQ(server_.m_timeout.tv_sec, 2);
  EXPECT_EQ(server_.m_timeout.tv_usec, 345000);
  server_.set_timeout(4294967295U);
  EXPECT_EQ(server_.m_timeout.tv_sec, 4294967);
  EXPECT_EQ(server_.m_timeout.tv_usec, 295000);
}

TEST_F(ServerTables, SwitchTheTimeoutOnAndOff) {
  server_.set_use_timeout(true);
  EXPECT_TRUE(server_.m_use_timeout);
  server_.set_use_timeout(false);
  EXPECT_FALSE(server_.m_use_timeout);
}

TEST_F(ServerTables, AllocateANewReadBuffer) {
  server_.set_read_buffer_size(10);
  EXPECT_EQ(server_.read_buffer_size(), 10U);
  ASSERT_NE(server_.m_read_buffer, nullptr);
  server_.m_read_buffer[9] = 'x';
  server_.set_read_buffer_size(20);
  EXPECT_EQ(server_.read_buffer_size(), 20U);
  server_.m_read_buffer[19] = 'x';
}

}  // namespace
}  // namespace zell::test
