// SPDX-License-Identifier: Apache-2.0
// Inbound connections: accepting, reading, dropping.
#include <algorithm>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <syslog.h>

#include "unit/server/loop_fixture.h"

namespace zell::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Accepting.

TEST_F(ServerLoop, AcceptsAConnection) {
  server_.add_port(kPort, false, false);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  Connection record;
  int keepalive = -1;
  int flags = 0;
  server_.onIncoming = [&](int fd) {
    record = server_.m_connections.at(fd);
    keepalive = optionOf(fd, SOL_SOCKET, SO_KEEPALIVE);
    flags = fcntl(fd, F_GETFD);
  };
  int accepting = -1;
  server_.runUntil([&] { return accepting = listener(kPort), record.port != -1; });
  EXPECT_EQ(record.port, kPort);
  EXPECT_FALSE(record.udp);
  EXPECT_FALSE(record.read);
  EXPECT_EQ(record.incoming, accepting);
  EXPECT_EQ(record.ip, "127.0.0.1");
  EXPECT_EQ(keepalive, 1);
  EXPECT_NE(flags & FD_CLOEXEC, 0);
  EXPECT_EQ(log.count("(PID) accepted connection, accept on socket " + std::to_string(accepting) +
                      " from 127.0.0.1, new socket " + std::to_string(record.handle)),
            1);
  EXPECT_EQ(server_.count("incoming " + std::to_string(record.handle)), 1);
}

TEST_F(ServerLoop, SetsKeepaliveAfterTheAcceptedConnectionIsLogged) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  const auto options = [](int fd) {
    return std::vector<bool>{optionOf(fd, SOL_SOCKET, SO_KEEPALIVE) == 1,
                             optionOf(fd, IPPROTO_TCP, TCP_KEEPIDLE) == 10,
                             optionOf(fd, IPPROTO_TCP, TCP_KEEPINTVL) == 10,
                             optionOf(fd, IPPROTO_TCP, TCP_KEEPCNT) == 5};
  };
  std::vector<bool> logged;
  std::vector<bool> handled;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    log.onEntry = [&](const LogEntry& line) { logged = options(lastNumber(line.text)); };
  };
  server_.onIncoming = [&](int fd) {
    log.onEntry = nullptr;
    handled = options(fd);
  };
  server_.runUntil([&] { return !handled.empty(); });
  EXPECT_THAT(logged, ElementsAre(false, false, false, false));
  EXPECT_THAT(handled, ElementsAre(true, true, true, true));
}

TEST_F(ServerLoop, AcceptsOneConnectionOfAPortInAPass) {
  server_.add_port(kPort, false, true);
  std::vector<UniqueFd> clients;
  server_.onStarted = [&] {
    clients.push_back(connectTo(kPort));
    clients.push_back(connectTo(kPort));
  };
  std::vector<std::size_t> sizes;
  server_.onLoop = [&] { sizes.push_back(server_.m_connections.size()); };
  server_.runPasses(2);
  EXPECT_THAT(sizes, ElementsAre(1U, 2U));
}

TEST_F(ServerLoop, DistinguishesThePorts) {
  server_.add_port(kPort, false, true);
  server_.add_port(kOtherPort, false, true);
  UniqueFd one;
  UniqueFd two;
  server_.onStarted = [&] {
    two = connectTo(kOtherPort);
    one = connectTo(kPort);
  };
  std::vector<int> ports;
  server_.onIncoming = [&](int fd) { ports.push_back(server_.m_connections.at(fd).port); };
  server_.runUntil([&] { return ports.size() == 2; });
  EXPECT_THAT(ports, ElementsAre(kPort, kOtherPort)) << "listening sockets go by number";
}

TEST_F(ServerLoop, EndsTheProcessWhenAListenersPortIsUnknown) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    server_.m_ports.clear();
  };
  int status = 0;
  try {
    server_.runPasses(3);
  } catch (const ProcessExit& exit) {
    status = exit.status;
  }
  EXPECT_EQ(status, -3);
  EXPECT_EQ(
      log.count("(PID) void zell::ServerBase::process_socket(int) - huge problem no port found"),
      1);
  EXPECT_EQ(log.texts(LOG_ERR).size(), 1U);
  EXPECT_EQ(log.countContaining("accepted connection"), 1);
  EXPECT_THAT(server_.events(), ElementsAre("startup", "started", "shutdown"));
}

TEST_F(ServerLoop, EntersAnUnknownListenerWithPortZero) {
  const UniqueFd unknown = listenOn(kPort);
  const UniqueFd client = connectTo(kPort);
  server_.m_ports[0] = Port{0, false, false};
  server_.process_socket(unknown.get());
  EXPECT_EQ(server_.m_listeners.at(unknown.get()), 0);
  ASSERT_EQ(server_.m_connections.size(), 1U);
  EXPECT_EQ(server_.m_connections.begin()->second.port, 0);
  server_.close_connections(-1);
}

TEST_F(ServerLoop, LogsThatAcceptingFailed) {
  const UniqueFd noListener = bindTo(kPort);
  server_.process_socket(noListener.get());
  EXPECT_THAT(lines(), ElementsAre("ERR (PID) unable to accept incoming connection, accept: "
                                   "Invalid argument"));
  EXPECT_THAT(server_.m_connections, IsEmpty());
}

// Reading.

TEST_F(ServerLoop, PassesPackets) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    sendAll(client, "hello");
  };
  std::string got;
  server_.onData = [&](int fd, const std::string& bytes) {
    got = bytes;
    EXPECT_EQ(send(fd, "answer", 6, 0), 6);
  };
  server_.runUntil([&] { return !got.empty(); });
  EXPECT_EQ(got, "hello");
  char answer[16];
  EXPECT_EQ(recv(client.get(), answer, sizeof answer, MSG_DONTWAIT), 6);
}

TEST_F(ServerLoop, ReadsOncePerPass) {
  server_.add_port(kPort, false, true);
  server_.set_read_buffer_size(4);
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    sendAll(client, "abcdefghij");
  };
  std::vector<std::string> passes;
  std::string got;
  server_.onData = [&](int, const std::string& bytes) { got += bytes; };
  server_.onLoop = [&] { passes.push_back(got); };
  server_.runUntil([&] { return got.size() == 10; });
  EXPECT_THAT(passes, ElementsAre("", "abcd", "abcdefgh", "abcdefghij"));
}

TEST_F(ServerLoop, ServesAUdpPort) {
  server_.add_port(kPort, true, true);
  const UniqueFd client(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = loopback(kPort);
  ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  std::vector<int> udp;
  server_.onStarted = [&] {
    sendAll(client, "one");
    sendAll(client, "two");
    udp = server_.inbound();
    EXPECT_THAT(server_.m_listeners, IsEmpty());
  };
  std::vector<std::string> got;
  server_.onData = [&](int, const std::string& bytes) { got.push_back(bytes); };
  server_.runUntil([&] { return got.size() == 2; });
  EXPECT_THAT(got, ElementsAre("one", "two"));
  ASSERT_EQ(udp.size(), 1U);
  EXPECT_EQ(server_.count("data " + std::to_string(udp[0]) + " port 6001 one"), 1);
  EXPECT_THAT(server_.m_connections, IsEmpty());
  EXPECT_EQ(log.count("(PID) closing data socket " + std::to_string(udp[0])), 1);
}

TEST_F(ServerLoop, LetsTheSubclassReadIfThePortSaysSo) {
  server_.add_port(kPort, false, false);
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    sendAll(client, "hello");
  };
  std::string got;
  server_.onReadable = [&](int fd) {
    char bytes[16];
    const ssize_t n = recv(fd, bytes, sizeof bytes, 0);
    got.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    return n > 0;
  };
  bool closed = false;
  server_.onLoop = [&] {
    if (got == "hello" && !closed) {
      client.reset();
      closed = true;
    }
  };
  server_.runUntil([&] { return closed && server_.m_connections.empty(); });
  EXPECT_EQ(got, "hello");
  EXPECT_EQ(log.countContaining("dropping connection"), 1);
  EXPECT_EQ(log.countContaining("empty read"), 0) << "the framework read it after all";
}

TEST_F(ServerLoop, KeepsServingAConnectionThatTheSubclassLeavesUnread) {
  server_.add_port(kPort, false, false);
  UniqueFd client;
  server_.onStarted = [&] {
    client = connectTo(kPort);
    sendAll(client, "x");
  };
  int served = 0;
  server_.onReadable = [&](int) { return ++served, true; };
  server_.runUntil([&] { return served == 3; });
  EXPECT_EQ(log.countContaining("dropping"), 0);
}

// Ends.

TEST_F(ServerLoop, DropsAConnectionThatItsPeerClosed) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  int fd = -1;
  server_.onIncoming = [&](int socket) {
    fd = socket;
    client.reset();
    (void)lines();
  };
  std::vector<std::string> seen;
  server_.runUntil([&] { return server_.m_connections.empty(); });
  EXPECT_EQ(log.texts()[0], "(PID) empty read from inbound socket " + std::to_string(fd) +
                                ", from 127.0.0.1, it's dead");
  EXPECT_EQ(log.texts()[1], "(PID) dropping connection: " + std::to_string(fd));
}

TEST_F(ServerLoop, DropsOneOfTwoThatCloseInTheSamePass) {
  server_.add_port(kPort, false, true);
  std::vector<UniqueFd> clients;
  server_.onStarted = [&] {
    clients.push_back(connectTo(kPort));
    clients.push_back(connectTo(kPort));
  };
  std::vector<int> sockets;
  std::vector<std::vector<int>> tables;
  server_.onLoop = [&] {
    if (sockets.empty() && server_.m_connections.size() == 2) {
      sockets = server_.inbound();
      clients.clear();
    } else if (!sockets.empty()) {
      tables.push_back(server_.inbound());
    }
  };
  server_.runUntil([&] { return tables.size() == 2; });
  EXPECT_THAT(tables, ElementsAre(ElementsAre(sockets[1]), IsEmpty()));
}

TEST_F(ServerLoop, ServesTheSocketsAfterADroppedOneInTheNextPass) {
  server_.add_port(kPort, false, true);
  std::vector<UniqueFd> clients;
  server_.onStarted = [&] {
    clients.push_back(connectTo(kPort));
    clients.push_back(connectTo(kPort));
  };
  bool sent = false;
  std::vector<std::string> passes;
  server_.onLoop = [&] {
    if (!sent && server_.m_connections.size() == 2) {
      clients[0].reset();
      sendAll(clients[1], "late");
      server_.calls.clear();
      sent = true;
    } else if (sent) {
      const std::vector<std::string> events = server_.events();
      passes.push_back(events.empty() ? "" : events.back().substr(0, 4));
      server_.calls.clear();
    }
  };
  server_.runUntil([&] { return passes.size() == 2; });
  EXPECT_THAT(passes, ElementsAre("drop", "data"));
}

TEST_F(ServerLoop, ContinuesAfterASocketThatCannotBeDropped) {
  server_.add_port(kPort, false, true);
  std::vector<UniqueFd> clients;
  server_.onStarted = [&] {
    clients.push_back(connectTo(kPort));
    clients.push_back(connectTo(kPort));
  };
  server_.onDropSocket = [](int) { return 0; };
  bool sent = false;
  std::string got;
  std::string gotInFirstPass;
  server_.onData = [&](int, const std::string& bytes) { got += bytes; };
  int passesAfter = 0;
  server_.onLoop = [&] {
    if (sent && ++passesAfter == 1) {
      gotInFirstPass = got;
    }
    if (!sent && server_.m_connections.size() == 2) {
      clients[0].reset();
      sendAll(clients[1], "same pass");
      sent = true;
    }
  };
  server_.runUntil([&] { return passesAfter == 1; });
  EXPECT_EQ(gotInFirstPass, "same pass");
}

TEST_F(ServerLoop, DropsAnInboundConnectionInTheExceptSet) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  int fd = -1;
  server_.onIncoming = [&](int socket) {
    fd = socket;
    sendUrgent(client);
    (void)lines();
  };
  server_.runUntil([&] { return server_.m_connections.empty() && fd != -1; });
  const std::vector<std::string> texts = log.texts();
  EXPECT_EQ(texts[0], "(PID) inbound connection " + std::to_string(fd) + " disconnected");
  EXPECT_EQ(texts[1], "(PID) dropping connection: " + std::to_string(fd));
  EXPECT_TRUE(isClosedByPeer(client));
}

TEST_F(ServerLoop, ReadsAnExceptionalConnectionThatCannotBeDropped) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  server_.onDropSocket = [](int) { return 0; };
  std::string got;
  server_.onIncoming = [&](int) {
    sendUrgent(client);
    sendAll(client, "also");
  };
  server_.onData = [&](int, const std::string& bytes) { got += bytes; };
  server_.runUntil([&] { return !got.empty(); });
  EXPECT_EQ(got, "also");
  EXPECT_GE(log.countContaining("inbound connection"), 1);
}

TEST_F(ServerLoop, DoesNotReadAnExceptionalConnectionThatIsNotReadable) {
  server_.add_port(kPort, false, true);
  UniqueFd client;
  server_.onStarted = [&] { client = connectTo(kPort); };
  server_.onDropSocket = [](int) { return 0; };
  server_.onIncoming = [&](int fd) {
    EXPECT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK), 0);  // a surplus read fails and does not block
    sendUrgent(client);
  };
  server_.runUntil([&] { return log.countContaining("inbound connection") == 2; });
  EXPECT_EQ(log.countContaining("recvfrom"), 0);
}

}  // namespace
}  // namespace zell::test
