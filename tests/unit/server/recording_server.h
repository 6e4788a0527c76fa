// SPDX-License-Identifier: Apache-2.0
// A server that records the order of its virtual operations and lets a test act inside them.
#ifndef TESTS_UNIT_SERVER_RECORDING_SERVER_H_
#define TESTS_UNIT_SERVER_RECORDING_SERVER_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "server/server_base.h"

namespace zell::test {

/// Makes the framework's protected members accessible for tests.
class OpenServer : public ServerBase {
 public:
  using ServerBase::ServerBase;

  using ServerBase::close_connections;
  using ServerBase::close_devices;
  using ServerBase::close_hosts;
  using ServerBase::close_listeners;
  using ServerBase::connect_host;
  using ServerBase::connect_hosts;
  using ServerBase::dump_socket_options;
  using ServerBase::open_port;
  using ServerBase::process_incoming;
  using ServerBase::process_read;
  using ServerBase::process_socket;
  using ServerBase::resolve_master;
  using ServerBase::set_keepalive;

  using ServerBase::m_child_pid;
  using ServerBase::m_connections;
  using ServerBase::m_daemon;
  using ServerBase::m_device_fds;
  using ServerBase::m_devices;
  using ServerBase::m_except_set;
  using ServerBase::m_hosts;
  using ServerBase::m_listeners;
  using ServerBase::m_log_facility;
  using ServerBase::m_max_fd;
  using ServerBase::m_name;
  using ServerBase::m_pid_file;
  using ServerBase::m_pid_fp;
  using ServerBase::m_ports;
  using ServerBase::m_read_buffer;
  using ServerBase::m_read_buffer_size;
  using ServerBase::m_read_set;
  using ServerBase::m_timeout;
  using ServerBase::m_use_timeout;

  /// The socket of the host at @p place in the list, -1 if it is not connected.
  [[nodiscard]] int hostSocket(std::size_t place) const;
  /// The sockets of the inbound table, ascending.
  [[nodiscard]] std::vector<int> inbound() const;
};

/// Every virtual operation appends a line to `calls` and runs its hook. An empty hook acts like the
/// base, without the log line of the base.
class RecordingServer : public OpenServer {
 public:
  explicit RecordingServer(const std::string& name = "recorder");

  /// Runs in the foreground until @p done returns true at the end of a pass. After 20 s it ends and
  /// fails the test, even if handle_select always returns true.
  int runUntil(std::function<bool()> done);
  /// Runs @p passes in the foreground.
  int runPasses(int passes);

  /// "startup", "incoming FD", "data FD BYTES", and so on, in order.
  std::vector<std::string> calls;
  /// The calls except those of each pass (select, loop, timeout).
  [[nodiscard]] std::vector<std::string> events() const;
  /// The number of calls that equal @p call.
  [[nodiscard]] int count(const std::string& call) const;

  std::function<int(int fd)> onDropSocket;
  std::function<int(int fd)> onDropHostConnection;
  std::function<void()> onStartup;
  std::function<void()> onStarted;
  std::function<bool(int port)> onListenFailure;
  std::function<void(int fd, const std::string& bytes)> onData;
  std::function<bool(int fd)> onReadable;
  std::function<bool(int result)> onSelect;
  std::function<void()> onTimeout;
  std::function<void(const std::string& path, int fd)> onDevice;
  std::function<void(int fd)> onIncoming;
  std::function<void(int fd)> onOutgoing;
  std::function<void()> onLoop;
  std::function<void()> onShutdown;

  int drop_socket(int fd) override;
  int drop_host_connection(int fd) override;
  void handle_startup() override;
  void handle_started() override;
  bool handle_listen_failure(int port) override;
  void handle_data_read(int fd, char* buf, size_t len, int port) override;
  bool handle_data_read(int fd, int port) override;
  bool handle_select(int result, fd_set* read_set, fd_set* except_set) override;
  void handle_timeout() override;
  void handle_device(const std::string& path, int fd) override;
  void handle_incoming_connection(int fd) override;
  void handle_outgoing_connection(int fd) override;
  void handle_loop() override;
  void handle_shutdown() override;

 private:
  void note(const std::string& call) { calls.push_back(call); }
  void watchTheTime();

  std::function<bool()> done_;
  std::chrono::steady_clock::time_point deadline_;
};

}  // namespace zell::test

#endif  // TESTS_UNIT_SERVER_RECORDING_SERVER_H_
