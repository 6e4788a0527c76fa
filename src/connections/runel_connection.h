// SPDX-License-Identifier: Apache-2.0
// The interface between the agent server and the handler of a socket.
#ifndef ZELL_CONNECTIONS_RUNEL_CONNECTION_H_
#define ZELL_CONNECTIONS_RUNEL_CONNECTION_H_

#include <memory>
#include <string>

#include <zell/slave_proxy.h>

namespace zell {

/// Names of the protocol versions, indexed by version number. Kept for integrators of masters; the
/// daemon does not read it.
constexpr const char* kProtocolVersions[] = {"<error>", "2.6", "2.4"};

/// Base class of the protocol handlers. One handler serves one socket. The server reads from the
/// socket and closes it, and deletes the handler when it drops the socket.
class RunelConnection {
 public:
  /// Protocol codes, as shown in the server's trace.
  static constexpr int kPrompt = 1;
  static constexpr int kByteCount = 2;
  static constexpr int kXml = 3;

  /// Serves @p socket with the protocol code @p protocol. Logs an invalid socket number (below 0,
  /// or 65536 and above) and uses it all the same.
  RunelConnection(int socket, int protocol);
  virtual ~RunelConnection();
  RunelConnection(const RunelConnection&) = delete;
  RunelConnection& operator=(const RunelConnection&) = delete;

  /// True when the handler has buffered input to process without new bytes. The loop asks every
  /// handler on every pass, so this must be cheap.
  virtual bool inputPending();
  /// Processes @p packet, the bytes of one read. For an empty packet the handler processes its
  /// buffered input. The handler may change @p packet.
  virtual void handleMessage(std::string& packet);
  /// True once the handler requests that the whole server stops.
  virtual bool stopRequested();

  [[nodiscard]] int socket() const { return socket_; }
  [[nodiscard]] int protocol() const { return protocol_; }

 protected:
  /// Whether the socket number is invalid: below 0, or 65536 and above.
  [[nodiscard]] bool bogusSocket() const;

  int socket_;
  int protocol_;
  std::unique_ptr<SlaveProxy> proxy_;  // executes the peer's requests; never null
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_RUNEL_CONNECTION_H_
