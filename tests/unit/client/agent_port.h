// SPDX-License-Identifier: Apache-2.0
// The daemon's side of an agent, in the test's process.
#ifndef TESTS_UNIT_CLIENT_AGENT_PORT_H_
#define TESTS_UNIT_CLIENT_AGENT_PORT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "support/loopback.h"

namespace runel {

/// A port and the connection of an agent.
class AgentPort {
 public:
  AgentPort() : listener_(zell::test::listenOnLoopback(port, SOCK_NONBLOCK)) {}

  /// Accepts the next connection and reads what is there.
  void serve() {
    zell::UniqueFd next(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (next.valid()) {
      agent = std::move(next);
    }
    char part[65536];
    ssize_t got = agent.valid() ? recv(agent.get(), part, sizeof part, MSG_DONTWAIT) : 0;
    while (got > 0) {
      came.append(part, static_cast<std::size_t>(got));
      got = recv(agent.get(), part, sizeof part, MSG_DONTWAIT);
    }
  }
  void say(const std::string& bytes) const {
    EXPECT_EQ(send(agent.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void stopListening() { listener_.reset(); }
  [[nodiscard]] std::string text() const { return "127.0.0.1:" + std::to_string(port); }

  zell::UniqueFd agent;
  std::uint16_t port = 0;
  std::string came;

 private:
  zell::UniqueFd listener_;
};

}  // namespace runel

#endif  // TESTS_UNIT_CLIENT_AGENT_PORT_H_
