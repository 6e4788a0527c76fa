// SPDX-License-Identifier: Apache-2.0
// A connection from a proxy, until its header has arrived.
#ifndef RUNEL_MASTER_PROXIED_SOCKET_H_
#define RUNEL_MASTER_PROXIED_SOCKET_H_

#include <functional>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/master/proxy_header.h"

namespace runel {

/// Reads the header and nothing of what follows.
class ProxiedSocket {
 public:
  /// Called once; the object may then be destroyed. Without a socket the connection has ended. The
  /// header is incomplete if it has not arrived in time.
  using Arrived = std::function<void(zell::UniqueFd socket, const ProxyHeader& header)>;

  ProxiedSocket(Loop& loop, zell::UniqueFd socket, Arrived arrived);
  ~ProxiedSocket();
  ProxiedSocket(const ProxiedSocket&) = delete;
  ProxiedSocket& operator=(const ProxiedSocket&) = delete;

 private:
  void ready();
  void finish(zell::UniqueFd socket);

  Loop& loop_;
  zell::UniqueFd socket_;
  Arrived arrived_;
  ProxyHeader header_;
  Timer late_;
};

}  // namespace runel

#endif  // RUNEL_MASTER_PROXIED_SOCKET_H_
