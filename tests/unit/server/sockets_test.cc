// SPDX-License-Identifier: Apache-2.0
// Single sockets: names, options, listening, reading.
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/temp_dir.h"
#include "unit/server/peers.h"
#include "unit/server/recording_server.h"
#include "unit/server/server_test.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

/// Two connected stream sockets.
struct Pair {
  explicit Pair(int type = SOCK_STREAM) {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds), 0);
    near.reset(fds[0]);
    far.reset(fds[1]);
  }
  UniqueFd near;
  UniqueFd far;
};

class ServerSockets : public ServerTest {
 protected:
  /// Removes the socket of @p port from the tables, so that the test owns it.
  UniqueFd open(const Port& port) { return UniqueFd(server_.open_port(port)); }

  RecordingServer server_;
};

// Names.

TEST_F(ServerSockets, ResolveADottedAddress) {
  sockaddr_in address{};
  std::memset(&address, 0x55, sizeof address);
  EXPECT_EQ(server_.resolve_master(Host{"10.1.2.3", 5112, -1}, &address), 0);
  EXPECT_EQ(address.sin_family, AF_INET);
  EXPECT_EQ(ntohs(address.sin_port), 5112);
  EXPECT_STREQ(inet_ntoa(address.sin_addr), "10.1.2.3");
  const char zeros[sizeof address.sin_zero] = {};
  EXPECT_EQ(std::memcmp(address.sin_zero, zeros, sizeof zeros), 0);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerSockets, ResolveAName) {
  sockaddr_in address{};
  EXPECT_EQ(server_.resolve_master(Host{"localhost", 5112, -1}, &address), 0);
  EXPECT_STREQ(inet_ntoa(address.sin_addr), "127.0.0.1");
}

TEST_F(ServerSockets, ResolveWithoutAResultPointerFails) {
  EXPECT_EQ(server_.resolve_master(Host{"10.1.2.3", 5112, -1}, nullptr), 1);
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) resolve_master: null addr"));
}

TEST_F(ServerSockets, ResolveAnUnknownNameFails) {
  sys.fakeLookup = true;
  sys.lookupResult = -1;
  sys.lookupError = HOST_NOT_FOUND;
  sockaddr_in address{};
  std::memset(&address, 0x55, sizeof address);
  EXPECT_EQ(server_.resolve_master(Host{"nobody", 5112, -1}, &address), 1);
  EXPECT_EQ(address.sin_family, 0x5555) << "the address was touched";
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) resolve_master: cannot resolve name, nobody, 1 "
                                   "Unknown host"));
}

TEST_F(ServerSockets, ResolveANameThatNoResolverAnswersForFails) {
  sockaddr_in address{};
  EXPECT_EQ(server_.resolve_master(Host{"no.such.name.invalid", 1, -1}, &address), 1);
  EXPECT_EQ(log.countContaining("cannot resolve name, no.such.name.invalid, "), 1);
}

TEST_F(ServerSockets, ResolveWithoutARecordFails) {
  sys.fakeLookup = true;
  sockaddr_in address{};
  EXPECT_EQ(server_.resolve_master(Host{"empty", 5112, -1}, &address), 1);
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) resolve_master: gethostbyname returned success, but "
                                   "hep is null?"));
}

TEST_F(ServerSockets, ResolveToTheFirstOfSeveralAddresses) {
  sys.fakeLookup = true;
  sys.lookupAddresses = {loopback(1).sin_addr, in_addr{htonl(0x0a010203)}};
  sockaddr_in address{};
  EXPECT_EQ(server_.resolve_master(Host{"two", 5112, -1}, &address), 0);
  EXPECT_STREQ(inet_ntoa(address.sin_addr), "127.0.0.1");
}

// ERANGE is not retried with a larger buffer.
TEST_F(ServerSockets, ResolveOnceWithABufferOf1024Bytes) {
  sys.fakeLookup = true;
  sys.lookupResult = ERANGE;
  sys.lookupError = NETDB_INTERNAL;
  sockaddr_in address{};
  EXPECT_EQ(server_.resolve_master(Host{"long", 5112, -1}, &address), 1);
  EXPECT_THAT(sys.lookupSizes, ElementsAre(1024U));
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) resolve_master: cannot resolve name, long, -1 "
                                   "Resolver internal error"));
}

// Keepalive.

TEST_F(ServerSockets, HaveASilentPeerProbed) {
  const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  server_.set_keepalive(fd.get());
  EXPECT_EQ(optionOf(fd.get(), SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(optionOf(fd.get(), IPPROTO_TCP, TCP_KEEPIDLE), 10);
  EXPECT_EQ(optionOf(fd.get(), IPPROTO_TCP, TCP_KEEPINTVL), 10);
  EXPECT_EQ(optionOf(fd.get(), IPPROTO_TCP, TCP_KEEPCNT), 5);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerSockets, LogAFailedKeepaliveWithoutASocket) {
  const UniqueFd fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  server_.set_keepalive(fd.get());
  EXPECT_THAT(lines(),
              ElementsAre("WARNING (PID) failed to set SO_KEEPALIVE on socket, disconnections may "
                          "not be detected in a timely manner"));
}

TEST_F(ServerSockets, TryEveryKeepaliveOptionWhenOneFails) {
  const Pair pair;
  server_.set_keepalive(pair.near.get());
  const std::string why = std::strerror(EOPNOTSUPP);
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) failed to set TCP_KEEPIDLE: " + why,
                                   "WARNING (PID) failed to set TCP_KEEPINTVL: " + why,
                                   "WARNING (PID) failed to set TCP_KEEPCNT: " + why));
  EXPECT_EQ(optionOf(pair.near.get(), SOL_SOCKET, SO_KEEPALIVE), 1);
}

// Listening.

TEST_F(ServerSockets, OpenATcpPortOnAllAddresses) {
  const UniqueFd fd = open(Port{kPort, false, true});
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length);
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_EQ(ntohs(address.sin_port), kPort);
  EXPECT_EQ(optionOf(fd.get(), SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(optionOf(fd.get(), SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_THAT(server_.m_listeners, IsEmpty()) << "the caller enters it";
  EXPECT_THAT(lines(), ElementsAre("DEBUG (PID) bind succeeded, port = 6001, socket = " +
                                       std::to_string(fd.get()),
                                   "INFO (PID) listening on port 6001"));
}

// tcpi_sacked of a listening socket is its backlog.
TEST_F(ServerSockets, QueueAHundredAndTwentyEightConnections) {
  const UniqueFd fd = open(Port{kPort, false, true});
  tcp_info info{};
  socklen_t length = sizeof info;
  ASSERT_EQ(getsockopt(fd.get(), IPPROTO_TCP, TCP_INFO, &info, &length), 0);
  EXPECT_EQ(info.tcpi_sacked, 128U);
}

TEST_F(ServerSockets, OpenAUdpPortAsAConnection) {
  const UniqueFd fd = open(Port{kPort, true, false});
  EXPECT_EQ(optionOf(fd.get(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
  const Connection& record = server_.m_connections.at(fd.get());
  EXPECT_EQ(record.port, kPort);
  EXPECT_TRUE(record.udp);
  EXPECT_FALSE(record.read);
  EXPECT_EQ(record.incoming, fd.get());
  EXPECT_EQ(record.handle, fd.get());
  EXPECT_EQ(record.ip, "");
  EXPECT_THAT(lines(), ElementsAre("DEBUG (PID) bind succeeded, port = 6001, socket = " +
                                   std::to_string(fd.get())));
}

TEST_F(ServerSockets, ReplaceAnOldRecordOfAUdpSocketsNumber) {
  const int number = UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)).get();
  server_.m_connections[number] = Connection{1, false, false, 2, 3, "10.0.0.1"};
  const UniqueFd fd = open(Port{kPort, true, true});
  ASSERT_EQ(fd.get(), number);
  const Connection& record = server_.m_connections.at(number);
  EXPECT_EQ(record.port, kPort);
  EXPECT_TRUE(record.udp && record.read);
  EXPECT_EQ(record.incoming, number);
  EXPECT_EQ(record.handle, number);
  EXPECT_EQ(record.ip, "");
}

struct OptionRow {
  int number;
  const char* name;
};

// In the order of the log, with the option numbers of the kernel.
constexpr OptionRow kDumpedOptions[] = {
    {30, "SO_ACCEPTCONN"}, {6, "SO_BROADCAST"}, {14, "SO_BSDCOMPAT"}, {1, "SO_DEBUG"},
    {4, "SO_ERROR"},       {5, "SO_DONTROUTE"}, {9, "SO_KEEPALIVE"},  {10, "SO_OOBINLINE"},
    {16, "SO_PASSCRED"},   {12, "SO_PRIORITY"}, {8, "SO_RCVBUF"},     {18, "SO_RCVLOWAT"},
    {19, "SO_SNDLOWAT"},   {20, "SO_RCVTIMEO"}, {21, "SO_SNDTIMEO"},  {2, "SO_REUSEADDR"},
    {7, "SO_SNDBUF"},      {3, "SO_TYPE"},
};

/// The log lines of a dump of @p fd.
std::vector<std::string> dumpOf(int fd) {
  std::vector<std::string> dump;
  for (const OptionRow& row : kDumpedOptions) {
    int value = 0;
    socklen_t length = sizeof value;
    const bool known = getsockopt(fd, SOL_SOCKET, row.number, &value, &length) == 0;
    dump.push_back(known ? std::string("DEBUG (PID) socket option ") + row.name + " = " +
                               std::to_string(value)
                         : std::string("DEBUG (PID) failed to read socket option ") + row.name);
  }
  return dump;
}

TEST_F(ServerSockets, DumpTheirOptionsInOrder) {
  const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  std::vector<std::string> expected = dumpOf(fd.get());
  expected.emplace_back("DEBUG (PID) socket option SO_BINDTODEVICE = ");
  server_.dump_socket_options(fd.get());
  EXPECT_THAT(lines(), ElementsAreArray(expected));
}

TEST_F(ServerSockets, DumpTheDeviceThatTheyAreBoundTo) {
  const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, "lo", 2), 0);
  server_.dump_socket_options(fd.get());
  EXPECT_EQ(lines().back(), "DEBUG (PID) socket option SO_BINDTODEVICE = lo");
}

TEST_F(ServerSockets, DumpFailuresWithoutASocket) {
  const UniqueFd fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  std::vector<std::string> expected;
  for (const OptionRow& row : kDumpedOptions) {
    expected.push_back(std::string("DEBUG (PID) failed to read socket option ") + row.name);
  }
  expected.emplace_back("DEBUG (PID) failed to read socket option SO_BINDTODEVICE");
  server_.dump_socket_options(fd.get());
  EXPECT_THAT(lines(), ElementsAreArray(expected));
}

TEST_F(ServerSockets, LogThatAPortIsInUseAndDumpTheOptions) {
  const UniqueFd other = listenOn(kPort);
  const UniqueFd alike = bindTo(kOtherPort);
  std::vector<std::string> expected = dumpOf(alike.get());
  expected.insert(expected.begin(),
                  "CRIT (PID) cannot bind socket: port = 6001, Address already in use");
  expected.emplace_back("DEBUG (PID) socket option SO_BINDTODEVICE = ");
  EXPECT_EQ(server_.open_port(Port{kPort, false, true}), -1);
  EXPECT_THAT(lines(), ElementsAreArray(expected));
}

TEST_F(ServerSockets, LogThatAUdpPortIsInUse) {
  const UniqueFd other(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = loopback(kPort);
  ASSERT_EQ(bind(other.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_FALSE(open(Port{kPort, true, true}).valid());
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_EQ(linesAboveDebug().front(),
            "CRIT (PID) cannot bind socket: port = 6001, Address already in use");
}

// Between bind and listen another socket starts to listen on the port.
TEST_F(ServerSockets, LogThatListeningFailed) {
  const UniqueFd other = bindTo(kPort);
  log.onEntry = [&](const LogEntry& entry) {
    if (entry.text.find("bind succeeded") != std::string::npos) {
      EXPECT_EQ(listen(other.get(), 1), 0);
    }
  };
  EXPECT_FALSE(open(Port{kPort, false, true}).valid());
  log.onEntry = nullptr;
  EXPECT_THAT(linesAboveDebug(),
              ElementsAre("CRIT (PID) cannot listen: port = 6001, Address already in use"));
}

TEST_F(ServerSockets, DumpTheOptionsWhenListeningFailed) {
  const UniqueFd other = bindTo(kPort);
  log.onEntry = [&](const LogEntry& entry) {
    if (entry.text.find("bind succeeded") != std::string::npos) {
      EXPECT_EQ(listen(other.get(), 1), 0);
    }
  };
  EXPECT_FALSE(open(Port{kPort, false, true}).valid());
  log.onEntry = nullptr;
  EXPECT_EQ(log.countContaining("socket option SO_"),
            static_cast<int>(std::size(kDumpedOptions)) + 1);
}

TEST_F(ServerSockets, LogThatNoSocketCanBeCreated) {
  const DescriptorLimit limit(static_cast<int>(openDescriptors().size()));
  const NumbersTaken taken(1024);
  EXPECT_EQ(server_.open_port(Port{kPort, false, true}), -1);
  EXPECT_EQ(server_.open_port(Port{kPort, true, true}), -1);
  EXPECT_THAT(lines(), ElementsAre("CRIT (PID) failed to open socket: Too many open files",
                                   "CRIT (PID) failed to open socket: Too many open files"));
}

// Reading.

TEST_F(ServerSockets, PassReceivedBytes) {
  const Pair pair;
  sendAll(pair.far, "hello");
  EXPECT_EQ(server_.process_read(pair.near.get(), kPort, true), 0);
  EXPECT_THAT(server_.calls,
              ElementsAre("data " + std::to_string(pair.near.get()) + " port 6001 hello"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ServerSockets, AllocateTheBufferOnFirstUse) {
  const Pair pair;
  sendAll(pair.far, "x");
  EXPECT_EQ(server_.process_read(pair.near.get(), kPort, true), 0);
  EXPECT_EQ(server_.read_buffer_size(), 4096U);
}

TEST_F(ServerSockets, KeepABufferWithTheSubclassesSize) {
  const Pair pair;
  server_.set_read_buffer_size(3);
  sendAll(pair.far, "abcdefgh");
  std::vector<std::string> packets;
  server_.onData = [&](int, const std::string& bytes) { packets.push_back(bytes); };
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(server_.process_read(pair.near.get(), kPort, true), 0);
  }
  EXPECT_THAT(packets, ElementsAre("abc", "def", "gh"));
}

TEST_F(ServerSockets, ReadOnceAtMostTheBuffersSize) {
  const Pair pair;
  sendAll(pair.far, std::string(5000, 'x'));
  std::vector<std::size_t> sizes;
  server_.onData = [&](int, const std::string& bytes) { sizes.push_back(bytes.size()); };
  EXPECT_EQ(server_.process_read(pair.near.get(), kPort, true), 0);
  EXPECT_THAT(sizes, ElementsAre(4096U));
  EXPECT_EQ(server_.process_read(pair.near.get(), kPort, true), 0);
  EXPECT_THAT(sizes, ElementsAre(4096U, 904U));
}

TEST_F(ServerSockets, ClearTheWholeBufferBeforeEachRead) {
  const Pair pair;
  sendAll(pair.far, "a long packet");
  EXPECT_EQ(server_.process_read(pair.near.get(), kPort, true), 0);
  sendAll(pair.far, "ab");
  EXPECT_EQ(server_.process_read(pair.near.get(), kPort, true), 0);
  const std::string buffer(server_.m_read_buffer.get(), 4096);
  EXPECT_EQ(buffer, "ab" + std::string(4094, '\0'));
}

TEST_F(ServerSockets, StayAliveWhenReadingFails) {
  const UniqueFd fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(server_.process_read(fd.get(), kPort, true), 0);
  EXPECT_THAT(server_.calls, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) recvfrom: socket " + std::to_string(fd.get()) + ", " +
                                   std::to_string(ENOTSOCK) + " Socket operation on non-socket"));
}

TEST_F(ServerSockets, EndAfterAnEmptyReadOfAnInboundConnection) {
  Pair pair;
  pair.far.reset();
  const int fd = pair.near.get();
  server_.m_connections[fd] = Connection{kPort, false, true, 9, fd, "10.0.0.1"};
  server_.add_host("also", 1);
  server_.m_hosts.front().socket = fd;  // the inbound table is searched first
  EXPECT_EQ(server_.process_read(fd, kPort, true), 1);
  EXPECT_THAT(server_.calls, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) empty read from inbound socket " +
                                   std::to_string(fd) + ", from 10.0.0.1, it's dead"));
}

TEST_F(ServerSockets, EndAfterAnEmptyReadOfAnOutboundConnection) {
  Pair pair;
  pair.far.reset();
  const int fd = pair.near.get();
  server_.add_host("other", 1);
  server_.add_host("master", 2);
  server_.m_hosts.back().socket = fd;
  EXPECT_EQ(server_.process_read(fd, kPort, true), 1);
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) empty read from outbound socket " +
                                   std::to_string(fd) + ", to master, it's dead"));
}

TEST_F(ServerSockets, EndAfterAnEmptyReadOfAnUnknownConnection) {
  Pair pair;
  pair.far.reset();
  const int fd = pair.near.get();
  EXPECT_EQ(server_.process_read(fd, kPort, true), 1);
  EXPECT_THAT(lines(), ElementsAre("WARNING (PID) empty read from unknown socket " +
                                   std::to_string(fd) + ", it's dead"));
}

TEST_F(ServerSockets, LeaveTheReadingToTheSubclass) {
  const Pair pair;
  sendAll(pair.far, "hello");
  const int fd = pair.near.get();
  EXPECT_EQ(server_.process_read(fd, kPort, false), 0);
  server_.onReadable = [](int) { return false; };
  EXPECT_EQ(server_.process_read(fd, kPort, false), 1);
  const std::string call = "readable " + std::to_string(fd) + " port 6001";
  EXPECT_THAT(server_.calls, ElementsAre(call, call));
  EXPECT_EQ(server_.m_read_buffer, nullptr);
  char buffer[10];
  EXPECT_EQ(recv(fd, buffer, sizeof buffer, MSG_DONTWAIT), 5) << "the framework took the bytes";
}

TEST_F(ServerSockets, ServeAnIncomingConnectionByItsRecord) {
  const Pair pair;
  const int fd = pair.near.get();
  sendAll(pair.far, "hello");
  server_.m_connections[fd] = Connection{kOtherPort, false, false, 9, fd, ""};
  EXPECT_EQ(server_.process_incoming(fd), 0);
  server_.m_connections[fd].read = true;
  EXPECT_EQ(server_.process_incoming(fd), 0);
  const std::string about = std::to_string(fd) + " port 6002";
  EXPECT_THAT(server_.calls, ElementsAre("readable " + about, "data " + about + " hello"));
}

TEST_F(ServerSockets, DropADeadIncomingConnection) {
  Pair pair;
  pair.far.reset();
  const int fd = pair.near.get();
  server_.m_connections[fd] = Connection{kPort, false, true, 9, fd, "10.0.0.1"};
  int answer = -1;
  server_.onDropSocket = [&](int) { return answer; };
  EXPECT_EQ(server_.process_incoming(fd), -1);
  answer = 0;
  EXPECT_EQ(server_.process_incoming(fd), 0) << "the result is the one of drop_socket";
}

}  // namespace
}  // namespace zell::test
