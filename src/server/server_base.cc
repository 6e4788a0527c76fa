// SPDX-License-Identifier: Apache-2.0
// The server's tables and settings, and the operations that subclasses replace.
#include "server/server_base.h"

#include <algorithm>

#include <syslog.h>
#include <unistd.h>

#include "base/log.h"
#include "server/host_cursor.h"

namespace zell {
namespace {

constexpr unsigned kDefaultTimeoutMs = 2000;

void log_override_needed(const char* signature) {
  logPlain(LOG_INFO, "Need to override - %s", signature);
}

}  // namespace

std::atomic<int> ServerBase::s_run{false};
std::atomic<int> ServerBase::s_signal{-1};

// The default facility is an unusual one on purpose: the lines of a server that forgets to choose a
// facility appear in a place where they stand out.
ServerBase::ServerBase(const std::string& name)
    : m_name(name), m_pid_file("/var/run/" + name + ".pid"), m_log_facility(LOG_LPR) {
  set_timeout(kDefaultTimeoutMs);
}

ServerBase::ServerBase(const std::string& name, int port) : ServerBase(name) {
  add_port(port, false, true);
}

ServerBase::~ServerBase() = default;

int ServerBase::drop_socket(int fd) {
  const auto found = m_connections.find(fd);
  if (found != m_connections.end()) {
    logLine(LOG_INFO, "dropping connection: %d", fd);
    unwatch(fd);
    (void)close(fd);
    m_connections.erase(found);
    return -1;
  }
  logLine(LOG_ERR, "*** error: cannot find inbound connection, socket %d", fd);
  for (const auto& [socket, connection] : m_connections) {
    logLine(LOG_INFO,
            "connection port = %d, udp = %d, read = %d, incoming = %d, handle = %d, ip = %s",
            connection.port, static_cast<int>(connection.udp), static_cast<int>(connection.read),
            connection.incoming, connection.handle, connection.ip.c_str());
  }
  return 0;
}

int ServerBase::drop_host_connection(int fd) {
  const auto found = std::find_if(m_hosts.begin(), m_hosts.end(),
                                  [fd](const Host& host) { return host.socket == fd; });
  if (found != m_hosts.end()) {
    logLine(LOG_INFO, "closing connection %s, socket %d", found->name.c_str(), found->socket);
    unwatch(fd);
    (void)close(fd);
    found->socket = -1;
    return -1;
  }
  logLine(LOG_ERR, "*** error: cannot find host connection, socket %d", fd);
  for (const Host& host : m_hosts) {
    logLine(LOG_INFO, "host name = %s, port = %d, socket = %d", host.name.c_str(), host.port,
            host.socket);
  }
  return 0;
}

void ServerBase::handle_started() {}

bool ServerBase::handle_listen_failure(int /*port*/) {
  return false;
}

void ServerBase::handle_data_read(int fd, char* buf, size_t len, int port) {
  // The packet is not zero-terminated: a full buffer has no space for a zero byte.
  const int length = static_cast<int>(len);
  logPlain(LOG_INFO, "Need to override - %s, handle=%d, port=%d , buf_len= %d, buf='%.*s'",
           "virtual void zell::ServerBase::handle_data_read(int, char*, size_t, int)", fd, port,
           length, length, buf);
}

bool ServerBase::handle_data_read(int fd, int port) {
  logPlain(LOG_INFO, "Need to override - %s, handle=%d, port=%d",
           "virtual bool zell::ServerBase::handle_data_read(int, int)", fd, port);
  return true;
}

bool ServerBase::handle_select(int /*result*/, fd_set* /*read_set*/, fd_set* /*except_set*/) {
  return false;
}

void ServerBase::handle_timeout() {
  log_override_needed("virtual void zell::ServerBase::handle_timeout()");
}

void ServerBase::handle_device(const std::string& path, int fd) {
  logPlain(LOG_INFO, "Need to override - %s, fn=%s, handle=%d",
           "virtual void zell::ServerBase::handle_device(const std::string&, int)", path.c_str(),
           fd);
}

void ServerBase::handle_incoming_connection(int fd) {
  logPlain(LOG_INFO, "Need to override - %s, handle = %d",
           "virtual void zell::ServerBase::handle_incoming_connection(int)", fd);
}

void ServerBase::handle_outgoing_connection(int fd) {
  logPlain(LOG_INFO, "Need to override - %s, handle = %d",
           "virtual void zell::ServerBase::handle_outgoing_connection(int)", fd);
}

void ServerBase::handle_loop() {}

void ServerBase::handle_shutdown() {}

void ServerBase::add_port(int port, bool udp, bool read) {
  if (s_run) {
    logLine(LOG_INFO, "cannot add a new port once we have started '%d'", port);
    return;
  }
  m_ports[port] = Port{port, udp, read};
}

void ServerBase::add_device(const std::string& path) {
  if (s_run) {
    logLine(LOG_INFO, "cannot add a new device once we have started '%s'", path.c_str());
    return;
  }
  m_devices.push_back(path);
}

void ServerBase::add_host(const std::string& name, int port) {
  if (name.empty()) {
    logLine(LOG_WARNING, "adding empty host, ignoring");
    return;
  }
  m_hosts.push_back(Host{name, port, -1});
}

void ServerBase::remove_host(const std::string& name, int port) {
  const auto found = std::find_if(m_hosts.begin(), m_hosts.end(), [&](const Host& host) {
    return host.name == name && host.port == port && host.socket == -1;
  });
  if (found == m_hosts.end()) {
    return;
  }
  for (HostCursor* cursor : m_host_cursors) {
    cursor->leave(found);
  }
  m_hosts.erase(found);
}

void ServerBase::set_log_facility(int facility) {
  if (!s_run) {
    m_log_facility = facility;
  }
}

void ServerBase::set_timeout(unsigned ms) {
  m_timeout.tv_sec = ms / 1000;
  m_timeout.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
}

void ServerBase::set_read_buffer_size(unsigned size) {
  m_read_buffer.reset();  // first, so that only one buffer is allocated at a time
  m_read_buffer = std::make_unique<char[]>(size);
  m_read_buffer_size = size;
}

}  // namespace zell
