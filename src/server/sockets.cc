// SPDX-License-Identifier: Apache-2.0
// The operations on single sockets: connecting, listening, reading, closing.
#include "server/server_base.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "base/log.h"
#include "base/system.h"
#include "server/host_cursor.h"

namespace zell {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

// A master whose packets are lost would otherwise block the daemon in connect() for minutes. Every
// host of a pass gets at least the minimum, so that every host is tried.
constexpr nanoseconds kConnectTimeout = seconds(3);
constexpr nanoseconds kMinConnectTimeout = milliseconds(10);

// Seconds without traffic before the first probe, seconds between probes, and unanswered probes
// until the peer counts as dead: about a minute in all.
constexpr int kKeepIdle = 10;
constexpr int kKeepInterval = 10;
constexpr int kKeepProbes = 5;

constexpr int kBacklog = 128;
constexpr unsigned kPacketSize = 4096;
constexpr std::size_t kLookupBuffer = 1024;

// Descriptors above this number stay free for what tasks open: files, pipes, the log.
constexpr int kFirstRefused = FD_SETSIZE - 64;

struct SocketOption {
  int value;
  const char* name;
};

constexpr SocketOption kSocketOptions[] = {
    {SO_ACCEPTCONN, "SO_ACCEPTCONN"},
    {SO_BROADCAST, "SO_BROADCAST"},
    {SO_BSDCOMPAT, "SO_BSDCOMPAT"},
    {SO_DEBUG, "SO_DEBUG"},
    {SO_ERROR, "SO_ERROR"},
    {SO_DONTROUTE, "SO_DONTROUTE"},
    {SO_KEEPALIVE, "SO_KEEPALIVE"},
    {SO_OOBINLINE, "SO_OOBINLINE"},
    {SO_PASSCRED, "SO_PASSCRED"},
    {SO_PRIORITY, "SO_PRIORITY"},
    {SO_RCVBUF, "SO_RCVBUF"},
    {SO_RCVLOWAT, "SO_RCVLOWAT"},
    {SO_SNDLOWAT, "SO_SNDLOWAT"},
    {SO_RCVTIMEO, "SO_RCVTIMEO"},
    {SO_SNDTIMEO, "SO_SNDTIMEO"},
    {SO_REUSEADDR, "SO_REUSEADDR"},
    {SO_SNDBUF, "SO_SNDBUF"},
    {SO_TYPE, "SO_TYPE"},
    {0, nullptr},
};

bool set_option(int fd, int level, int option, int value) {
  return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

void set_send_timeout(int fd, nanoseconds timeout) {
  timeval value{};
  value.tv_sec = std::chrono::duration_cast<seconds>(timeout).count();
  value.tv_usec =
      std::chrono::duration_cast<std::chrono::microseconds>(timeout % seconds(1)).count();
  // A failure only makes the connect take longer.
  (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
}

// Casts an address of one family to the generic type that the socket calls expect.
template <typename Address>
sockaddr* generic(Address* address) {
  return reinterpret_cast<sockaddr*>(address);
}

bool is_out_of_descriptors(int error) {
  return error == EMFILE || error == ENFILE;
}

}  // namespace

int ServerBase::resolve_master(const Host& host, sockaddr_in* out) {
  if (out == nullptr) {
    logLine(LOG_ERR, "resolve_master: null addr");
    return 1;
  }
  hostent record{};
  hostent* result = nullptr;
  char work[kLookupBuffer];
  int error = 0;
  if (sys::gethostbyname_r(host.name.c_str(), &record, work, sizeof work, &result, &error) != 0) {
    logLine(LOG_ERR, "resolve_master: cannot resolve name, %s, %d %s", host.name.c_str(), error,
            hstrerror(error));
    return 1;
  }
  if (result == nullptr) {
    logLine(LOG_ERR, "resolve_master: gethostbyname returned success, but hep is null?");
    return 1;
  }
  std::memset(out, 0, sizeof *out);
  out->sin_family = AF_INET;
  out->sin_port = htons(static_cast<uint16_t>(host.port));
  const auto length = static_cast<std::size_t>(std::max(result->h_length, 0));
  std::memcpy(&out->sin_addr, result->h_addr_list[0], std::min(length, sizeof out->sin_addr));
  return 0;
}

void ServerBase::set_keepalive(int fd) {
  if (!set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1)) {
    logLine(LOG_WARNING,
            "failed to set SO_KEEPALIVE on socket, disconnections may not be detected in a timely "
            "manner");
    return;
  }
  if (!set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, kKeepIdle)) {
    logLine(LOG_WARNING, "failed to set TCP_KEEPIDLE: %m");
  }
  if (!set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, kKeepInterval)) {
    logLine(LOG_WARNING, "failed to set TCP_KEEPINTVL: %m");
  }
  if (!set_option(fd, IPPROTO_TCP, TCP_KEEPCNT, kKeepProbes)) {
    logLine(LOG_WARNING, "failed to set TCP_KEEPCNT: %m");
  }
}

void ServerBase::connect_host(Host& host) {
  nanoseconds time_left = kConnectTimeout;
  connect_within(host, &time_left);
}

void ServerBase::connect_hosts() {
  nanoseconds time_left = kConnectTimeout;
  for (HostCursor cursor(*this); !cursor.at_end(); cursor.advance()) {
    if (cursor.host().socket == -1) {
      connect_within(cursor.host(), &time_left);
    }
  }
}

void ServerBase::connect_within(Host& host, nanoseconds* time_left) {
  sockaddr_in address{};
  if (resolve_master(host, &address) != 0) {
    logLine(LOG_ERR, "cannot resolve host '%s'", host.name.c_str());
    return;
  }
  UniqueFd fd = connect_socket(address, time_left);
  if (!fd.valid()) {
    return;
  }
  set_keepalive(fd.get());
  logLine(LOG_INFO, "established connection to %s, port %d, socket %d", host.name.c_str(),
          host.port, fd.get());
  if (fd.get() >= kFirstRefused) {
    logLine(LOG_WARNING, "too many connections, closing socket %d", fd.get());
    return;
  }
  host.socket = fd.release();
  handle_outgoing_connection(host.socket);  // may add and remove hosts: do not use `host` after it
}

// A refused connect is not logged, because every pass retries it. Only connect() counts against the
// timeout: a slow resolver must not permanently leave a distant master too little time.
UniqueFd ServerBase::connect_socket(const sockaddr_in& address, nanoseconds* time_left) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  if (!fd.valid()) {
    const int error = errno;
    logLine(LOG_WARNING, "failed to open socket: %d %m", error);
    return fd;
  }
  set_send_timeout(fd.get(), std::max(*time_left, kMinConnectTimeout));
  const nanoseconds start = sys::monotonicTime();
  const bool connected =
      connect(fd.get(), generic(const_cast<sockaddr_in*>(&address)), sizeof address) == 0;
  *time_left -= sys::monotonicTime() - start;
  if (!connected) {
    fd.reset();
    return fd;
  }
  set_send_timeout(fd.get(), nanoseconds(0));
  return fd;
}

int ServerBase::open_port(const Port& p) {
  const int type = (p.udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC;
  UniqueFd fd(socket(AF_INET, type, p.udp ? 0 : IPPROTO_TCP));
  if (!fd.valid()) {
    logLine(LOG_CRIT, "failed to open socket: %m");
    return -1;
  }
  if (!set_option(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1)) {
    logLine(LOG_WARNING, "warning: setsockopt() failure: %m");
  }
  if (!bind_port(fd.get(), p)) {
    return -1;
  }
  if (p.udp) {
    m_connections[fd.get()] = Connection{p.port, p.udp, p.read, fd.get(), fd.get(), ""};
  } else if (!listen_port(fd.get(), p)) {
    return -1;
  }
  return fd.release();
}

bool ServerBase::bind_port(int fd, const Port& p) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(p.port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(fd, generic(&address), sizeof address) != 0) {
    logLine(LOG_CRIT, "cannot bind socket: port = %d, %m", p.port);
    dump_socket_options(fd);
    return false;
  }
  logLine(LOG_DEBUG, "bind succeeded, port = %d, socket = %d", p.port, fd);
  return true;
}

bool ServerBase::listen_port(int fd, const Port& p) {
  if (listen(fd, kBacklog) != 0) {
    logLine(LOG_CRIT, "cannot listen: port = %d, %m", p.port);
    dump_socket_options(fd);
    return false;
  }
  logLine(LOG_INFO, "listening on port %d", p.port);
  return true;
}

void ServerBase::dump_socket_options(int fd) {
  for (const SocketOption* option = kSocketOptions; option->value != 0; ++option) {
    int value = 0;
    socklen_t length = sizeof value;  // too short for the two timeouts: the kernel may refuse them
    if (getsockopt(fd, SOL_SOCKET, option->value, &value, &length) == 0) {
      logLine(LOG_DEBUG, "socket option %s = %d", option->name, value);
    } else {
      logLine(LOG_DEBUG, "failed to read socket option %s", option->name);
    }
  }
  char device[256] = "";
  socklen_t length = sizeof device;
  if (getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device, &length) == 0) {
    logLine(LOG_DEBUG, "socket option %s = %s", "SO_BINDTODEVICE", device);
  } else {
    logLine(LOG_DEBUG, "failed to read socket option %s", "SO_BINDTODEVICE");
  }
}

void ServerBase::process_socket(int listening_socket) {
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  UniqueFd fd(accept4(listening_socket, generic(&peer), &length, SOCK_CLOEXEC));
  if (!fd.valid()) {
    const int error = errno;
    logLine(LOG_ERR, "unable to accept incoming connection, accept: %m");
    if (is_out_of_descriptors(error)) {
      refuse_with_reserve(listening_socket);
    }
    return;
  }
  const std::string ip = inet_ntoa(peer.sin_addr);
  logLine(LOG_INFO, "accepted connection, accept on socket %d from %s, new socket %d",
          listening_socket, ip.c_str(), fd.get());
  if (fd.get() >= kFirstRefused) {
    logLine(LOG_WARNING, "too many connections, closing socket %d", fd.get());
    return;
  }
  set_keepalive(fd.get());
  enter_connection(fd.get(), listening_socket, ip);
  handle_incoming_connection(fd.release());
}

// Without a free descriptor the waiting connection would make every select() return at once. Accept
// it with the reserved descriptor and close it.
void ServerBase::refuse_with_reserve(int listening_socket) {
  m_reserve.reset();
  UniqueFd surplus(accept4(listening_socket, nullptr, nullptr, SOCK_CLOEXEC));
  surplus.reset();
  keep_reserve();
}

void ServerBase::keep_reserve() {
  m_reserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));  // without it, a surplus peer waits
}

void ServerBase::enter_connection(int fd, int listening_socket, const std::string& ip) {
  const auto port = m_ports.find(m_listeners[listening_socket]);
  if (port == m_ports.end()) {
    logLine(LOG_ERR, "%s - huge problem no port found",
            "void zell::ServerBase::process_socket(int)");
    sys::exit(-3);
  }
  m_connections.insert_or_assign(fd, Connection{port->second.port, port->second.udp,
                                                port->second.read, listening_socket, fd, ip});
}

int ServerBase::process_read(int fd, int port, bool read) {
  if (!read) {
    return handle_data_read(fd, port) ? 0 : 1;
  }
  if (m_read_buffer == nullptr) {
    set_read_buffer_size(kPacketSize);
  }
  std::memset(m_read_buffer.get(), 0, m_read_buffer_size);
  sockaddr_in source{};  // unused: the connection's record names the sender
  socklen_t length = sizeof source;
  const ssize_t got =
      recvfrom(fd, m_read_buffer.get(), m_read_buffer_size, 0, generic(&source), &length);
  if (got < 0) {
    const int error = errno;
    logLine(LOG_ERR, "recvfrom: socket %d, %d %m", fd, error);
    return 0;
  }
  if (got == 0) {
    log_empty_read(fd);
    return 1;
  }
  // One read per readiness. Draining the socket here would let a peer that pushes a large file
  // starve all others; select() reports the rest on the next pass.
  handle_data_read(fd, m_read_buffer.get(), static_cast<std::size_t>(got), port);
  return 0;
}

void ServerBase::log_empty_read(int fd) {
  const auto inbound = m_connections.find(fd);
  if (inbound != m_connections.end()) {
    logLine(LOG_WARNING, "empty read from inbound socket %d, from %s, it's dead", fd,
            inbound->second.ip.c_str());
    return;
  }
  const auto outbound = std::find_if(m_hosts.begin(), m_hosts.end(),
                                     [fd](const Host& host) { return host.socket == fd; });
  if (outbound != m_hosts.end()) {
    logLine(LOG_WARNING, "empty read from outbound socket %d, to %s, it's dead", fd,
            outbound->name.c_str());
    return;
  }
  logLine(LOG_WARNING, "empty read from unknown socket %d, it's dead", fd);
}

int ServerBase::process_incoming(int fd) {
  const auto found = m_connections.find(fd);
  if (found == m_connections.end()) {
    logLine(LOG_ERR, "huge problem iterator found for incoming data (fd=%d)", fd);
    return -3;
  }
  const int port = found->second.port;
  const bool read = found->second.read;
  return process_read(fd, port, read) == 0 ? 0 : drop_socket(fd);
}

void ServerBase::close_hosts() {
  for (const Host& host : m_hosts) {
    if (host.socket != -1) {
      logLine(LOG_INFO, "closing host %s, socket %d", host.name.c_str(), host.socket);
      unwatch(host.socket);
      (void)close(host.socket);
    }
  }
  for (HostCursor* cursor : m_host_cursors) {
    cursor->leave_all();
  }
  m_hosts.clear();
}

// Closes all connections for any listening socket, and the log each time. The first call leaves no
// connections for the others, and the next line opens the log again.
void ServerBase::close_connections(int listening_socket) {
  for (const auto& [socket, connection] : m_connections) {
    if (socket > 0) {
      logLine(LOG_INFO, "closing data socket %d", socket);
      unwatch(socket);
      (void)close(socket);
    }
  }
  m_connections.clear();
  if (listening_socket >= 0) {
    logLine(LOG_INFO, "closing listening socket %d", listening_socket);
    unwatch(listening_socket);
    (void)close(listening_socket);
  }
  closelog();
}

void ServerBase::close_listeners() {
  for (const auto& [socket, port] : m_listeners) {
    close_connections(socket);
  }
  m_listeners.clear();
}

void ServerBase::close_devices() {
  for (const std::string& path : m_devices) {
    const int fd = m_device_fds[path];
    if (fd >= 1) {
      logLine(LOG_INFO, "closing device %s, fd %d", path.c_str(), fd);
      unwatch(fd);
      (void)close(fd);
    }
  }
}

}  // namespace zell
