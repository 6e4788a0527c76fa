// SPDX-License-Identifier: Apache-2.0
// How the server walks its hosts while its own virtual operations add and remove some.
#ifndef ZELL_SERVER_HOST_CURSOR_H_
#define ZELL_SERVER_HOST_CURSOR_H_

#include <list>

#include "server/server_base.h"

namespace zell {

/// Walks a server's hosts in list order. Hosts that are appended meanwhile are met; when the
/// current one is removed, the walk goes on with the one behind it.
class ServerBase::HostCursor {
 public:
  explicit HostCursor(ServerBase& server) : m_server(server), m_current(server.m_hosts.begin()) {
    server.m_host_cursors.push_back(this);
  }
  ~HostCursor() { m_server.m_host_cursors.pop_back(); }
  HostCursor(const HostCursor&) = delete;
  HostCursor& operator=(const HostCursor&) = delete;

  [[nodiscard]] bool at_end() const { return m_current == m_server.m_hosts.end(); }
  [[nodiscard]] Host& host() const { return *m_current; }
  void advance() {
    if (!m_moved) {
      ++m_current;
    }
    m_moved = false;
  }

  /// Moves on if @p doomed, which is about to be erased, is the current host.
  void leave(std::list<Host>::iterator doomed) {
    if (m_current == doomed) {
      ++m_current;
      m_moved = true;
    }
  }

  /// Ends the walk: the list is about to be emptied.
  void leave_all() {
    m_current = m_server.m_hosts.end();
    m_moved = true;
  }

 private:
  ServerBase& m_server;
  std::list<Host>::iterator m_current;
  bool m_moved = false;  // off a removed host, onto the one to be met next
};

}  // namespace zell

#endif  // ZELL_SERVER_HOST_CURSOR_H_
