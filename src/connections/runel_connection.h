// SPDX-License-Identifier: Apache-2.0
// What the agent server knows of the handler that serves a socket.
#ifndef ZELL_CONNECTIONS_RUNEL_CONNECTION_H_
#define ZELL_CONNECTIONS_RUNEL_CONNECTION_H_

#include <memory>
#include <string>

#include <zell/slave_proxy.h>

namespace zell {

/// Names of the protocol versions, by version number. Kept for the masters' integrators; nothing
/// in the daemon reads it.
constexpr const char* kProtocolVersions[] = {"<error>", "2.6", "2.4"};

/// Base of the protocol handlers. One handler serves one socket, which it reads no bytes from
/// itself and never closes: the server does both, and deletes the handler when the socket is
/// dropped.
class RunelConnection {
 public:
  /// Protocol codes, as the server's trace shows them.
  static constexpr int kPrompt = 1;
  static constexpr int kByteCount = 2;
  static constexpr int kXml = 3;

  /// Serves @p socket with the protocol code @p protocol. A socket number that cannot be one (below
  /// 0, or 65536 and up) is logged and used all the same.
  RunelConnection(int socket, int protocol);
  virtual ~RunelConnection();
  RunelConnection(const RunelConnection&) = delete;
  RunelConnection& operator=(const RunelConnection&) = delete;

  /// True when the handler holds input that it could work on now, without new bytes. Asked of every
  /// handler on every pass of the loop, so it must be cheap.
  virtual bool inputPending();
  /// Takes @p packet, the bytes of one read; an empty one means that the handler is to work on what
  /// it holds. The handler may change @p packet.
  virtual void handleMessage(std::string& packet);
  /// True once the handler wants the whole server to stop.
  virtual bool stopRequested();

  [[nodiscard]] int socket() const { return socket_; }
  [[nodiscard]] int protocol() const { return protocol_; }

 protected:
  /// Whether the socket's number cannot be one: below 0, or 65536 and up.
  [[nodiscard]] bool bogusSocket() const;

  int socket_;
  int protocol_;
  std::unique_ptr<SlaveProxy> proxy_;  // runs what the peer asks for; never null
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_RUNEL_CONNECTION_H_
