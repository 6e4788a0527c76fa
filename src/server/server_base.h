// SPDX-License-Identifier: Apache-2.0
// A single-threaded socket server around one select() loop. Subclasses override its virtual
// operations. It does not depend on the protocols of the sockets.
#ifndef ZELL_SERVER_SERVER_BASE_H_
#define ZELL_SERVER_SERVER_BASE_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/types.h>

#include "base/unique_fd.h"

namespace zell {

/// An inbound connection, or the socket of a UDP port.
struct Connection {
  int port = -1;     ///< local port
  bool udp = false;  ///< the port is a UDP port
  bool read = true;  ///< the framework reads; else the subclass does, in handle_data_read(int, int)
  int incoming = -1;  ///< the listening socket that accepted it; for UDP the socket itself
  int handle = -1;    ///< its own socket
  std::string ip;     ///< peer, dotted quad; empty for UDP
};

/// A port to listen on. A UDP port has no listening socket, only a connection.
struct Port {
  int port = -1;
  bool udp = false;
  bool read = true;
};

/// An outbound connection to maintain. Several may have the same name and port.
struct Host {
  std::string name;  ///< host name or dotted address
  int port = -1;
  int socket = -1;  ///< -1 while not connected
};

/// The server. A subclass overrides what it needs, adds its ports, devices and hosts, and calls
/// `run` once.
///
/// Everything runs on the thread that calls `run`. Each virtual operation runs between two select()
/// calls, so a slow operation delays all others. Inside any of them a subclass may drop any
/// connection, including the current one, and add and remove hosts. The scans of the loop stay
/// valid, and a descriptor number that is reused within a pass is not served before the next pass.
class ServerBase {
 public:
  /// A server without ports. @p name is the ident in the system log and determines the pid file's
  /// name.
  explicit ServerBase(const std::string& name);
  /// A server that listens on TCP port @p port and reads the connections itself.
  ServerBase(const std::string& name, int port);
  ServerBase(const ServerBase&) = delete;
  ServerBase& operator=(const ServerBase&) = delete;

  /// Releases the tables. Closes no descriptor that is in one.
  virtual ~ServerBase();

  /// Closes the inbound connection on @p fd and removes its record.
  ///
  /// Returns non-zero when the table changed: a caller that iterates over it must stop for this
  /// pass. Returns 0 when there is no such inbound connection; then logs the table and closes
  /// nothing.
  virtual int drop_socket(int fd);
  /// Closes the outbound connection on @p fd. The host is connected again at the end of the pass.
  /// Return values as for `drop_socket`.
  virtual int drop_host_connection(int fd);
  /// Called once, in the process that runs the loop, before anything is opened. Installs the signal
  /// handlers. An override must call this one first.
  virtual void handle_startup();
  /// Called once, when everything is open, before the first select().
  virtual void handle_started();
  /// The listening socket of @p port could not be opened. Return true to retry at once, false to
  /// continue without the port.
  virtual bool handle_listen_failure(int port);
  /// @p len bytes (above 0) were received on @p fd, a connection of @p port. @p buf is valid during
  /// the call.
  virtual void handle_data_read(int fd, char* buf, size_t len, int port);
  /// @p fd, whose `read` flag is false, is readable. Return false when it is dead and must be
  /// dropped.
  virtual bool handle_data_read(int fd, int port);
  /// Called after every select() with its result and sets. Return true to skip the rest of the
  /// pass.
  virtual bool handle_select(int result, fd_set* read_set, fd_set* except_set);
  /// select() timed out.
  virtual void handle_timeout();
  /// The device opened from @p path is readable.
  virtual void handle_device(const std::string& path, int fd);
  /// A connection was accepted and has its record.
  virtual void handle_incoming_connection(int fd);
  /// A connection to a host was made.
  virtual void handle_outgoing_connection(int fd);
  /// Called at the end of every pass.
  virtual void handle_loop();
  /// Called once, when `run` ends, before everything is closed.
  virtual void handle_shutdown();

  /// Runs the server until s_run is cleared; in the background if @p daemon is set. Returns 0 when
  /// the loop ended or fork failed, 1 in the parent of a started daemon, -1 when a daemon is
  /// already running or the pid file cannot be parsed.
  int run(bool daemon);
  /// Stops the daemon that the pid file names, and removes the file. For daemons only.
  void stop();

  // Settings. Ports, devices and the log facility cannot change once the loop runs.
  void add_port(int port, bool udp, bool read);
  void add_device(const std::string& path);
  /// Adds an outbound connection, also while the loop runs. It is made at the end of the next pass.
  void add_host(const std::string& name, int port);
  /// Removes the first unconnected host with this name and port, if any.
  void remove_host(const std::string& name, int port);
  void set_log_facility(int facility);
  [[nodiscard]] int log_facility() const { return m_log_facility; }
  /// Whether select() waits at most for the timeout. Otherwise it waits until something happens.
  void set_use_timeout(bool use) { m_use_timeout = use; }
  void set_timeout(unsigned ms);
  /// Allocates a new receive buffer of @p size bytes, the size of the longest packet.
  void set_read_buffer_size(unsigned size);
  [[nodiscard]] unsigned read_buffer_size() const { return m_read_buffer_size; }
  [[nodiscard]] bool is_daemon() const { return m_daemon; }

  /// Stores the signal in s_signal and clears s_run. The handler of TERM, QUIT, ABRT and INT.
  static void signal_quit(int sig);

  /// True while the loop runs. Clearing it ends the loop after the current pass. Not a bool,
  /// because GCC 12 has no lock-free one for riscv64.
  static std::atomic<int> s_run;
  /// The last signal caught; -1 for none.
  static std::atomic<int> s_signal;

 protected:
  /// Resolves @p host's IPv4 address and stores it with the port in @p out. Returns 0, or 1 after
  /// logging the reason. Blocks as long as the resolver does.
  int resolve_master(const Host& host, sockaddr_in* out);
  /// Enables keep-alive: a silent peer of @p fd is declared dead after about a minute.
  void set_keepalive(int fd);
  /// Tries to connect @p host with a timeout of 3 s.
  void connect_host(Host& host);
  /// Tries to connect every unconnected host. All connects together have a timeout of 3 s.
  void connect_hosts();
  /// Opens the socket of @p p. Returns -1 after logging the reason when that fails.
  int open_port(const Port& p);
  /// Logs the options of socket @p fd.
  void dump_socket_options(int fd);
  /// Accepts one connection.
  void process_socket(int listening_socket);
  /// Serves the readable socket @p fd. Returns 0 while it is alive, 1 when it is dead.
  int process_read(int fd, int port, bool read);
  /// Serves the readable inbound connection @p fd. Returns non-zero when the table has changed.
  int process_incoming(int fd);
  /// Closes the connections to all hosts and removes the hosts.
  void close_hosts();
  /// Closes and removes all connections, then closes @p listening_socket unless it is negative.
  void close_connections(int listening_socket);
  /// Closes and removes the listening sockets, and with the first one all connections.
  void close_listeners();
  void close_devices();

  std::map<int, Connection> m_connections;
  std::map<std::string, int> m_device_fds;
  std::list<std::string> m_devices;
  std::map<int, Port> m_ports;
  std::map<int, int> m_listeners;  // listening socket to port
  std::list<Host> m_hosts;
  bool m_use_timeout = false;
  std::string m_name;
  std::string m_pid_file;
  timeval m_timeout{};
  fd_set m_read_set{};
  fd_set m_except_set{};
  int m_max_fd = 0;
  pid_t m_child_pid = 0;
  std::FILE* m_pid_fp = nullptr;
  std::unique_ptr<char[]> m_read_buffer;
  unsigned m_read_buffer_size = 0;
  int m_log_facility;
  bool m_daemon = false;

 private:
  // A position in m_hosts that stays valid while hosts are added and removed. Scans may nest.
  class HostCursor;

  // event_loop.cc
  void open_ports();
  void open_devices();
  void one_pass();
  void fill_sets();
  void watch(int fd, bool except);
  void unwatch(int fd);
  [[nodiscard]] bool is_readable(int fd) const;
  [[nodiscard]] bool is_exceptional(int fd) const;
  void dispatch();
  void dispatch_listeners();
  void dispatch_devices();
  void dispatch_connections();
  bool dispatch_connection(int fd);
  void dispatch_hosts();
  bool dispatch_host(int fd, int port);
  void close_everything();

  // sockets.cc
  void connect_within(Host& host, std::chrono::nanoseconds* time_left);
  UniqueFd connect_socket(const sockaddr_in& address, std::chrono::nanoseconds* time_left);
  bool bind_port(int fd, const Port& p);
  bool listen_port(int fd, const Port& p);
  void refuse_with_reserve(int listening_socket);
  void keep_reserve();
  void enter_connection(int fd, int listening_socket, const std::string& ip);
  void log_empty_read(int fd);

  // daemon.cc
  std::optional<int> start_daemon();
  bool may_start();
  bool open_pid_file();
  bool read_pid(int* pid);
  void write_pid_file();

  UniqueFd m_reserve;  // closed to accept and close a connection when descriptors run out
  std::vector<HostCursor*> m_host_cursors;  // the scans of m_hosts in progress, innermost last
};

}  // namespace zell

#endif  // ZELL_SERVER_SERVER_BASE_H_
