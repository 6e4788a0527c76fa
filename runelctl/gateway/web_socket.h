// SPDX-License-Identifier: Apache-2.0
// A WebSocket to a gateway, on the loop of its user.
#ifndef RUNELCTL_GATEWAY_WEB_SOCKET_H_
#define RUNELCTL_GATEWAY_WEB_SOCKET_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <runel/error.h>
#include <runel/loop.h>

#include "gateway/gateway_settings.h"

namespace runelctl {

/// Connects by itself, and is open until it is closed or destroyed.
class WebSocket {
 public:
  /// Called on the loop, never within a call of this class. A handler may destroy the object.
  struct Handlers {
    std::function<void()> opened;
    std::function<void(std::string&& message, bool binary)> message;
    /// Messages have left the queue.
    std::function<void()> sent;
    /// The last call: it could not be opened, or was lost.
    std::function<void(const runel::Error& why)> closed;
  };

  WebSocket() = default;
  virtual ~WebSocket() = default;
  WebSocket(const WebSocket&) = delete;
  WebSocket& operator=(const WebSocket&) = delete;

  /// Queues @p message. Returns its number, from 1. Call it after `opened`.
  virtual std::uint64_t send(std::string message, bool binary) = 0;
  /// The messages up to this number were given to the system, or a part of the last one.
  [[nodiscard]] virtual std::uint64_t begun() const = 0;
  /// The bytes of the other ones.
  [[nodiscard]] virtual std::size_t queued() const = 0;
};

/// Opens one with the given handlers.
using WebSocketMaker = std::function<std::unique_ptr<WebSocket>(WebSocket::Handlers handlers)>;

/// One to the attach protocol of a gateway. Blocks while it looks up the gateway's name. An error
/// with `Cause::refusedByMaster` and EACCES, or with EPROTO, will not go away by itself.
[[nodiscard]] std::unique_ptr<WebSocket> openWebSocket(runel::Loop& loop,
                                                       const GatewaySettings& settings,
                                                       WebSocket::Handlers handlers);

/// Whether this program can open one.
[[nodiscard]] bool hasWebSockets();

}  // namespace runelctl

#endif  // RUNELCTL_GATEWAY_WEB_SOCKET_H_
