// SPDX-License-Identifier: Apache-2.0
// The framework's virtual operations: their order, and their default behaviour.
#include <type_traits>
#include <vector>

#include <unistd.h>

#include "support/slots.h"
#include "unit/server/peers.h"
#include "unit/server/recording_server.h"
#include "unit/server/server_test.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(std::has_virtual_destructor_v<ServerBase>);
static_assert(!std::is_copy_constructible_v<ServerBase> && !std::is_copy_assignable_v<ServerBase>);

/// A record as after accept(), on a real descriptor.
int enterConnection(OpenServer& server, bool read = true) {
  const int fd = dup(STDERR_FILENO);
  server.m_connections[fd] = Connection{kPort, false, read, 99, fd, "10.0.0.1"};
  return fd;
}

// A separately compiled subclass relies on it.
TEST(ServerBaseSlots, StandInTheirOrder) {
  const std::vector<int> slots{
      slotOf(&ServerBase::drop_socket),
      slotOf(&ServerBase::drop_host_connection),
      slotOf(&ServerBase::handle_startup),
      slotOf(&ServerBase::handle_started),
      slotOf(&ServerBase::handle_listen_failure),
      slotOf<void(int, char*, size_t, int)>(&ServerBase::handle_data_read),
      slotOf<bool(int, int)>(&ServerBase::handle_data_read),
      slotOf(&ServerBase::handle_select),
      slotOf(&ServerBase::handle_timeout),
      slotOf(&ServerBase::handle_device),
      slotOf(&ServerBase::handle_incoming_connection),
      slotOf(&ServerBase::handle_outgoing_connection),
      slotOf(&ServerBase::handle_loop),
      slotOf(&ServerBase::handle_shutdown),
  };
  EXPECT_EQ(slots, slotsBehindDestructors(slots.size()));
}

class BaseSlots : public ServerTest {
 protected:
  OpenServer server_{"slots"};
};

TEST_F(BaseSlots, DropAKnownSocket) {
  const int fd = enterConnection(server_);
  EXPECT_EQ(server_.drop_socket(fd), -1);
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("INFO (PID) dropping connection: " + std::to_string(fd)));
}

TEST_F(BaseSlots, LogADropBeforeTheSocketIsClosed) {
  const int fd = enterConnection(server_);
  bool open = false;
  log.onEntry = [&](const LogEntry& /*line*/) { open = isOpen(fd); };
  server_.drop_socket(fd);
  log.onEntry = nullptr;
  EXPECT_TRUE(open);
  EXPECT_FALSE(isOpen(fd));
}

TEST_F(BaseSlots, ShowTheTableWhenASocketToDropIsUnknown) {
  server_.m_connections[7] = Connection{6001, false, true, 5, 7, "10.0.0.1"};
  server_.m_connections[3] = Connection{6002, true, false, 3, 3, ""};
  EXPECT_EQ(server_.drop_socket(8), 0);
  EXPECT_EQ(server_.m_connections.size(), 2U);
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) *** error: cannot find inbound connection, socket 8",
                                   "INFO (PID) connection port = 6002, udp = 1, read = 0, "
                                   "incoming = 3, handle = 3, ip = ",
                                   "INFO (PID) connection port = 6001, udp = 0, read = 1, "
                                   "incoming = 5, handle = 7, ip = 10.0.0.1"));
}

TEST_F(BaseSlots, DropAKnownHostConnection) {
  server_.add_host("first", 1);
  server_.add_host("second", 2);
  const int fd = dup(STDERR_FILENO);
  server_.m_hosts.back().socket = fd;
  EXPECT_EQ(server_.drop_host_connection(fd), -1);
  EXPECT_EQ(server_.m_hosts.size(), 2U);
  EXPECT_EQ(server_.hostSocket(1), -1);
  EXPECT_THAT(lines(),
              ElementsAre("INFO (PID) closing connection second, socket " + std::to_string(fd)));
}

TEST_F(BaseSlots, LogTheDropOfAHostConnectionBeforeTheSocketIsClosed) {
  server_.add_host("host", 1);
  const int fd = dup(STDERR_FILENO);
  server_.m_hosts.back().socket = fd;
  bool open = false;
  log.onEntry = [&](const LogEntry& /*line*/) { open = isOpen(fd); };
  server_.drop_host_connection(fd);
  log.onEntry = nullptr;
  EXPECT_TRUE(open);
  EXPECT_FALSE(isOpen(fd));
}

TEST_F(BaseSlots, ShowTheHostsWhenAHostConnectionToDropIsUnknown) {
  server_.add_host("first", 1);
  server_.add_host("second", 2);
  server_.m_hosts.back().socket = 44;
  EXPECT_EQ(server_.drop_host_connection(45), 0);
  EXPECT_EQ(server_.hostSocket(1), 44);
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) *** error: cannot find host connection, socket 45",
                                   "INFO (PID) host name = first, port = 1, socket = -1",
                                   "INFO (PID) host name = second, port = 2, socket = 44"));
}

TEST_F(BaseSlots, GiveUpAPortThatCannotBeOpened) {
  EXPECT_FALSE(server_.handle_listen_failure(kPort));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(BaseSlots, LogAnUnhandledPacket) {
  char packet[] = "hello";
  server_.handle_data_read(7, packet, 5, 6001);
  EXPECT_THAT(lines(), ElementsAre("INFO Need to override - virtual void "
                                   "zell::ServerBase::handle_data_read(int, char*, size_t, int), "
                                   "handle=7, port=6001 , buf_len= 5, buf='hello'"));
}

TEST_F(BaseSlots, LogNothingAfterThePacket) {
  char buffer[] = {'a', 'b', 'c', 'd'};
  server_.handle_data_read(7, buffer, 2, 6001);
  EXPECT_THAT(lines(), ElementsAre("INFO Need to override - virtual void "
                                   "zell::ServerBase::handle_data_read(int, char*, size_t, int), "
                                   "handle=7, port=6001 , buf_len= 2, buf='ab'"));
}

TEST_F(BaseSlots, KeepAnUnreadReadableSocket) {
  EXPECT_TRUE(server_.handle_data_read(7, 6001));
  EXPECT_THAT(lines(), ElementsAre("INFO Need to override - virtual bool "
                                   "zell::ServerBase::handle_data_read(int, int), "
                                   "handle=7, port=6001"));
}

TEST_F(BaseSlots, ContinueThePassAfterSelect) {
  fd_set read_set{};
  fd_set except_set{};
  EXPECT_FALSE(server_.handle_select(1, &read_set, &except_set));
  EXPECT_FALSE(server_.handle_select(-1, nullptr, nullptr));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(BaseSlots, LogAnUnhandledTimeout) {
  server_.handle_timeout();
  EXPECT_THAT(
      lines(),
      ElementsAre("INFO Need to override - virtual void zell::ServerBase::handle_timeout()"));
}

TEST_F(BaseSlots, LogAnUnreadDevice) {
  server_.handle_device("/dev/a", 7);
  EXPECT_THAT(lines(), ElementsAre("INFO Need to override - virtual void "
                                   "zell::ServerBase::handle_device(const std::string&, int), "
                                   "fn=/dev/a, handle=7"));
}

TEST_F(BaseSlots, LogAnUnhandledIncomingConnection) {
  server_.handle_incoming_connection(7);
  EXPECT_THAT(lines(), ElementsAre("INFO Need to override - virtual void "
                                   "zell::ServerBase::handle_incoming_connection(int), "
                                   "handle = 7"));
}

TEST_F(BaseSlots, LogAnUnhandledOutgoingConnection) {
  server_.handle_outgoing_connection(7);
  EXPECT_THAT(lines(), ElementsAre("INFO Need to override - virtual void "
                                   "zell::ServerBase::handle_outgoing_connection(int), "
                                   "handle = 7"));
}

TEST_F(BaseSlots, DoNothingAtStartLoopAndEnd) {
  server_.handle_started();
  server_.handle_loop();
  server_.handle_shutdown();
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(BaseSlots, InstallTheSignalHandlersAtStartup) {
  server_.handle_startup();
  for (const int number : {SIGTERM, SIGQUIT, SIGABRT, SIGINT}) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    EXPECT_EQ(action.sa_handler, &ServerBase::signal_quit) << number;
  }
  struct sigaction action {};
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST_F(BaseSlots, DoNotChangeOtherSignals) {
  server_.handle_startup();
  for (const int number : {SIGHUP, SIGUSR1, SIGUSR2, SIGCHLD, SIGALRM}) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL) << number;
  }
}

TEST_F(BaseSlots, RecordTheLastSignalAndEndTheLoop) {
  ServerBase::s_run = true;
  ServerBase::signal_quit(SIGTERM);
  EXPECT_FALSE(ServerBase::s_run);
  EXPECT_EQ(ServerBase::s_signal, SIGTERM);
  ServerBase::signal_quit(SIGINT);
  EXPECT_EQ(ServerBase::s_signal, SIGINT);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(BaseSlots, DistinguishAnUnknownIncomingSocketFromAServedOne) {
  EXPECT_EQ(server_.process_incoming(9), -3);
  EXPECT_THAT(lines(),
              ElementsAre("ERR (PID) huge problem iterator found for incoming data (fd=9)"));
}

}  // namespace
}  // namespace zell::test
