// SPDX-License-Identifier: Apache-2.0
// An agent server with accessible tables, on sockets whose other ends belong to the test.
#ifndef TESTS_UNIT_AGENT_AGENT_CASE_H_
#define TESTS_UNIT_AGENT_AGENT_CASE_H_

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/runel.h"
#include "base/unique_fd.h"
#include "connections/byte_count_slave.h"
#include "connections/xml_slave.h"
#include "fakes/system/fake_system.h"
#include "fakes/zell/fake_zell.h"
#include "support/log_capture.h"
#include "support/task_wire.h"

namespace zell::test {

/// A request that every device can answer.
inline const std::string kExists = request({"fileexists", "/file"});

/// The test's end of a connection. The server closes the other end.
class Peer {
 public:
  Peer(int socket, UniqueFd far) : socket_(socket), far_(std::move(far)) {}

  /// The server's socket number of the connection.
  [[nodiscard]] int socket() const { return socket_; }
  /// All received bytes, and whether the server has closed the connection; does not block.
  struct Seen {
    std::string bytes;
    bool ended;
  };
  [[nodiscard]] Seen look() const;
  [[nodiscard]] std::string received() const { return look().bytes; }
  /// Sends @p bytes to the server without blocking.
  void say(const std::string& bytes) const;
  /// Discards received bytes.
  [[nodiscard]] bool ended() const { return look().ended; }

 private:
  int socket_;
  UniqueFd far_;
};

/// The agent server with accessible tables.
class TestRunel : public Runel {
 public:
  using Runel::address_;
  using Runel::agent_;
  using Runel::bridge_;
  using Runel::daemon_;
  using Runel::getConnectionAddress;
  using Runel::handlers_;
  using Runel::retries_;
  using Runel::Runel;
  using Runel::slave_;
  using Runel::spare_;
  using Runel::verbose_;
  using ServerBase::m_connections;
  using ServerBase::m_hosts;
  using ServerBase::m_name;
  using ServerBase::m_pid_file;
  using ServerBase::m_ports;
  using ServerBase::m_timeout;
  using ServerBase::m_use_timeout;

  ~TestRunel() override;

  /// An inbound connection, as after accept().
  Peer accept(const std::string& ip = "192.0.2.7");
  /// Connects the first unconnected host, as if its master had accepted.
  Peer connect();
  /// The server reads @p bytes from @p socket.
  void read(int socket, std::string bytes) {
    handle_data_read(socket, bytes.data(), bytes.size(), 5111);
  }
  void read(const Peer& peer, const std::string& bytes) { read(peer.socket(), bytes); }

  [[nodiscard]] bool serves(int socket) const { return handlers_.count(socket) != 0; }
  template <typename Handler>
  [[nodiscard]] Handler* handlerOf(const Peer& peer) const {
    const auto found = handlers_.find(peer.socket());
    return found == handlers_.end() ? nullptr : dynamic_cast<Handler*>(found->second.get());
  }
  /// Makes @p handler serve @p peer.
  template <typename Handler>
  Handler& serveWith(const Peer& peer, std::unique_ptr<Handler> handler) {
    Handler& made = *handler;
    handlers_[peer.socket()] = std::move(handler);
    return made;
  }

  /// Called at the end of each pass, after the server's own work.
  std::function<void(TestRunel&)> onLoop;
  void handle_loop() override;
};

/// Makes a server harmless: a fake device, a fake system and a private world.
class AgentCase : public ::testing::Test {
 public:
  /// Fails outside a private world, because the server rewrites /etc/hosts.
  static void SetUpTestSuite();

 protected:
  AgentCase();
  ~AgentCase() override;

  FakeSystem& system = FakeSystem::instance();
  FakeDevice& device = FakeDevice::instance();
  LogCapture log;
};

/// A log line with the prefix "(PID) "; formats the parts like a stream.
template <typename... Parts>
LogEntry line(int priority, const Parts&... parts) {
  std::ostringstream text;
  text << "(PID) ";
  (text << ... << parts);
  return {priority, text.str()};
}

}  // namespace zell::test

#endif  // TESTS_UNIT_AGENT_AGENT_CASE_H_
