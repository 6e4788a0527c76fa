// SPDX-License-Identifier: Apache-2.0
#include "unit/agent/agent_case.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

namespace zell::test {
namespace {

// The server's end and the test's end.
std::pair<UniqueFd, UniqueFd> connectedSockets() {
  int fds[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

}  // namespace

Peer::Seen Peer::look() const {
  Seen seen{"", false};
  char part[4096];
  ssize_t got = 0;
  while ((got = recv(far_.get(), part, sizeof part, MSG_DONTWAIT)) > 0) {
    seen.bytes.append(part, static_cast<std::size_t>(got));
  }
  seen.ended = got == 0;
  return seen;
}

void Peer::say(const std::string& bytes) const {
  (void)send(far_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

TestRunel::~TestRunel() {
  for (const auto& [socket, connection] : m_connections) {
    (void)close(socket);
  }
  for (const Host& host : m_hosts) {
    if (host.socket != -1) {
      (void)close(host.socket);
    }
  }
}

Peer TestRunel::accept(const std::string& ip) {
  auto [near, far] = connectedSockets();
  const int socket = near.release();
  m_connections[socket] = Connection{5111, false, true, 3, socket, ip};
  handle_incoming_connection(socket);
  return {socket, std::move(far)};
}

Peer TestRunel::connect() {
  for (Host& host : m_hosts) {
    if (host.socket == -1) {
      auto [near, far] = connectedSockets();
      const int socket = near.release();
      host.socket = socket;
      handle_outgoing_connection(socket);
      return {socket, std::move(far)};
    }
  }
  ADD_FAILURE() << "every host is connected";
  return {-1, UniqueFd()};
}

void TestRunel::handle_loop() {
  Runel::handle_loop();
  if (onLoop) {
    onLoop(*this);
  }
}

void AgentCase::SetUpTestSuite() {
  const char* const world = std::getenv("RUNELD_WORLD");
  if (world == nullptr || std::strcmp(world, "1") != 0) {
    std::fputs("these tests run in scripts/world only: they rewrite /etc/hosts\n", stderr);
    std::_Exit(1);
  }
}

AgentCase::AgentCase() {
  system.reset();
  device.reset();
  ServerBase::s_run = false;
  ServerBase::s_signal = -1;
  (void)std::signal(SIGPIPE, SIG_IGN);
}

AgentCase::~AgentCase() {
  ServerBase::s_run = false;
  ServerBase::s_signal = -1;
}

}  // namespace zell::test
