// SPDX-License-Identifier: Apache-2.0
// The life cycle of the server: open, select, dispatch, close.
#include "server/server_base.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include "base/log.h"
#include "base/scope_guard.h"
#include "server/host_cursor.h"

namespace zell {
namespace {

// Blocks the termination signals during its lifetime. Setting s_run would otherwise discard a
// signal that arrives after the handlers are installed.
class SignalHold {
 public:
  SignalHold() {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGTERM, SIGQUIT, SIGABRT, SIGINT}) {
      sigaddset(&ending, signal);
    }
    sigprocmask(SIG_BLOCK, &ending, &m_before);
  }
  ~SignalHold() { sigprocmask(SIG_SETMASK, &m_before, nullptr); }
  SignalHold(const SignalHold&) = delete;
  SignalHold& operator=(const SignalHold&) = delete;

 private:
  sigset_t m_before{};
};

// syslog keeps the pointer to the ident, and lines may follow after the server is destroyed.
void open_log(const std::string& name, int options, int facility) {
  static std::string ident;
  ident = name;
  openlog(ident.c_str(), options, facility);
}

void log_select_failure(int error) {
  if (error == EINTR) {
    logLine(LOG_WARNING, "select failed, but was due to a signal");
    return;
  }
  errno = error;
  logLine(LOG_ERR, "select: %m");
}

}  // namespace

int ServerBase::run(bool daemon) {
  m_daemon = daemon;
  open_log(m_name, daemon ? LOG_CONS : LOG_PERROR, m_log_facility);
  const ScopeGuard closing([this] { close_everything(); });
  {
    const SignalHold hold;
    if (daemon) {
      const std::optional<int> ended = start_daemon();
      if (ended) {
        return *ended;
      }
    }
    handle_startup();
    s_run = true;
  }
  keep_reserve();
  open_ports();
  open_devices();
  connect_hosts();
  handle_started();
  while (s_run) {
    one_pass();
  }
  if (s_signal >= 0) {
    logLine(LOG_INFO, "exiting on signal: %d", s_signal.load());
  }
  return 0;
}

void ServerBase::open_ports() {
  for (const auto& [number, port] : m_ports) {
    int fd = open_port(port);
    while (fd <= 0 && handle_listen_failure(number)) {
      fd = open_port(port);
    }
    if (fd > 0 && !port.udp) {
      m_listeners[fd] = number;
    }
  }
}

void ServerBase::open_devices() {
  m_device_fds.clear();
  for (const std::string& path : m_devices) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      logLine(LOG_WARNING, "%s not enabled: %m", path.c_str());
    }
    const auto earlier = m_device_fds.find(path);
    if (earlier != m_device_fds.end() && earlier->second > 0) {
      (void)close(earlier->second);  // listed twice: only the later one is watched
    }
    m_device_fds[path] = fd;
  }
}

void ServerBase::one_pass() {
  fill_sets();
  timeval timeout = m_timeout;  // select() may change it
  const int result =
      select(m_max_fd + 1, &m_read_set, nullptr, &m_except_set, m_use_timeout ? &timeout : nullptr);
  const int error = errno;
  if (handle_select(result, &m_read_set, &m_except_set)) {
    return;
  }
  if (result < 0) {
    log_select_failure(error);
  } else if (result == 0) {
    handle_timeout();
  } else {
    dispatch();
  }
  connect_hosts();
  handle_loop();
}

void ServerBase::fill_sets() {
  FD_ZERO(&m_read_set);
  FD_ZERO(&m_except_set);
  m_max_fd = 0;
  for (const auto& [socket, port] : m_listeners) {
    watch(socket, false);
  }
  for (const auto& [path, fd] : m_device_fds) {
    if (fd > 0) {
      watch(fd, false);
    }
  }
  for (const auto& [socket, connection] : m_connections) {
    if (socket > 0) {
      watch(socket, true);
    }
  }
  for (const Host& host : m_hosts) {
    if (host.socket >= 0) {
      watch(host.socket, true);
    }
  }
}

void ServerBase::watch(int fd, bool except) {
  if (fd >= FD_SETSIZE) {
    return;  // would be written behind the end of the sets
  }
  FD_SET(fd, &m_read_set);
  if (except) {
    FD_SET(fd, &m_except_set);
  }
  if (fd > m_max_fd) {
    m_max_fd = fd;
  }
}

// The number of a closed descriptor may be reused in the same pass. The new connection must not be
// served with the readiness of the old one.
void ServerBase::unwatch(int fd) {
  if (fd >= 0 && fd < FD_SETSIZE) {
    FD_CLR(fd, &m_read_set);
    FD_CLR(fd, &m_except_set);
  }
}

bool ServerBase::is_readable(int fd) const {
  return fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, &m_read_set);
}

bool ServerBase::is_exceptional(int fd) const {
  return fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, &m_except_set);
}

void ServerBase::dispatch() {
  dispatch_listeners();
  dispatch_devices();
  dispatch_connections();
  dispatch_hosts();
}

void ServerBase::dispatch_listeners() {
  auto next = m_listeners.begin();
  while (next != m_listeners.end()) {
    const int fd = next->first;
    if (is_readable(fd)) {
      process_socket(fd);
    }
    next = m_listeners.upper_bound(fd);
  }
}

void ServerBase::dispatch_devices() {
  for (const std::string& path : m_devices) {
    const int fd = m_device_fds[path];
    if (is_exceptional(fd)) {
      // Devices are never in the except set. Kept for a kernel that reports one all the same.
      logLine(LOG_INFO, "device %d disconnected, need to reconnect?", fd);
    }
    if (is_readable(fd)) {
      handle_device(path, fd);
    }
  }
}

// A handler called here may drop this connection and others, so the position in the table is looked
// up again after each call. At most one dead connection is dropped in a pass; select() reports the
// others again.
void ServerBase::dispatch_connections() {
  auto next = m_connections.upper_bound(0);
  while (next != m_connections.end()) {
    const int fd = next->first;
    if (!is_readable(fd) && !is_exceptional(fd)) {
      ++next;
      continue;
    }
    if (!dispatch_connection(fd)) {
      return;
    }
    next = m_connections.upper_bound(fd);
  }
}

// False when the table has changed and the scan must end.
bool ServerBase::dispatch_connection(int fd) {
  if (is_exceptional(fd)) {
    logLine(LOG_INFO, "inbound connection %d disconnected", fd);
    if (drop_socket(fd) != 0) {
      return false;
    }
  }
  return !is_readable(fd) || process_incoming(fd) == 0;
}

void ServerBase::dispatch_hosts() {
  for (HostCursor cursor(*this); !cursor.at_end(); cursor.advance()) {
    const int fd = cursor.host().socket;
    if (fd > 0 && !dispatch_host(fd, cursor.host().port)) {
      return;
    }
  }
}

// False when the table has changed and the scan must end. A host's socket that is missing from the
// table when it is dropped would be reported for ever, so that ends the server.
bool ServerBase::dispatch_host(int fd, int port) {
  if (is_exceptional(fd)) {
    logLine(LOG_INFO, "outbound connection %d disconnected", fd);
    if (drop_host_connection(fd) == 0) {
      logLine(LOG_ERR, "*** error: cannot find outbound connection %d, exiting", fd);
      s_run = false;
    }
    return false;
  }
  if (is_readable(fd) && process_read(fd, port, true) != 0) {
    logLine(LOG_INFO, "process_read declared the outbound connection %d dead", fd);
    if (drop_host_connection(fd) == 0) {
      logLine(LOG_ERR,
              "*** error: drop_host_connection cannot find the outbound connection %d, exiting",
              fd);
      s_run = false;
    }
    return false;
  }
  return true;
}

void ServerBase::close_everything() {
  handle_shutdown();
  close_listeners();
  if (!m_connections.empty()) {
    close_connections(-1);  // a server with only UDP ports has no listening socket to do it
  }
  close_devices();
  close_hosts();
  m_reserve.reset();
}

}  // namespace zell
