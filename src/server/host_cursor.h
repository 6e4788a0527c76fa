// SPDX-License-Identifier: Apache-2.0
// Iterates over the hosts while virtual operations of the server add and remove some.
#ifndef ZELL_SERVER_HOST_CURSOR_H_
#define ZELL_SERVER_HOST_CURSOR_H_

#include <list>

#include "server/server_base.h"

namespace zell {

/// Walks a server's hosts in list order. The walk includes hosts that are appended meanwhile. When
/// the current host is removed, the walk continues with the next one.
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

  /// Moves to the next host if @p doomed, which is about to be erased, is the current one.
  void leave(std::list<Host>::iterator doomed) {
    if (m_current == doomed) {
      ++m_current;
      m_moved = true;
    }
  }

  /// Ends the walk, because the list is about to be emptied.
  void leave_all() {
    m_current = m_server.m_hosts.end();
    m_moved = true;
  }

 private:
  ServerBase& m_server;
  std::list<Host>::iterator m_current;
  bool m_moved = false;  // the current host was removed, and the cursor is already on the next one
};

}  // namespace zell

#endif  // ZELL_SERVER_HOST_CURSOR_H_
