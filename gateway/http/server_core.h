// SPDX-License-Identifier: Apache-2.0
// What the connections of one server share.
#ifndef RUNELGW_HTTP_SERVER_CORE_H_
#define RUNELGW_HTTP_SERVER_CORE_H_

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "gateway/http/http.h"
#include "gateway/http/policy.h"
#include "gateway/http/transport.h"

namespace runelgw {

class Connection;

struct ServerCore {
  ServerCore(boost::asio::io_context& io, HttpSettings chosen, HttpServer::Handler use)
      : context(io), settings(std::move(chosen)), policy(settings), handler(std::move(use)) {}

  boost::asio::io_context& context;
  const HttpSettings settings;
  const HttpPolicy policy;
  HttpServer::Handler handler;  // empty after the server
  HttpState state;
  bool stopping = false;
  std::set<std::shared_ptr<Connection>> connections;  // until they are closed
  std::map<std::string, std::size_t> peers;           // the number of connections of each client
  std::function<void()> stopped;                      // called when the last connection is closed
};

/// The key of @p address in `peers`: the network of an IPv6 address, whose owner has all its
/// addresses.
[[nodiscard]] std::string peerKey(const boost::asio::ip::address& address);

}  // namespace runelgw

#endif  // RUNELGW_HTTP_SERVER_CORE_H_
