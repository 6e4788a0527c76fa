// SPDX-License-Identifier: Apache-2.0
// One connection of a client.
#ifndef RUNELGW_HTTP_CONNECTION_H_
#define RUNELGW_HTTP_CONNECTION_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "gateway/http/http.h"
#include "gateway/http/request_reader.h"
#include "gateway/http/response.h"
#include "gateway/http/server_core.h"
#include "gateway/http/transport.h"

namespace runelgw {

/// What a connection carries after the upgrade of a request.
class Upgraded {
 public:
  Upgraded() = default;
  virtual ~Upgraded() = default;
  Upgraded(const Upgraded&) = delete;
  Upgraded& operator=(const Upgraded&) = delete;

  virtual void stop() = 0;   ///< in an orderly way
  virtual void abort() = 0;  ///< the connection is closed. Calls no user
};

/// Reads requests, one at a time, and writes their answers. At any time there is at most one read
/// and one write. It lives while the server has it or an operation is under way.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(std::shared_ptr<ServerCore> core, Socket socket, std::shared_ptr<TlsContext> tls);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void start();
  /// Ends the connection when the answer that is under way is sent.
  void stop();
  /// Closes the connection and calls no user.
  void abort();
  /// Closes the connection and tells who waits for it.
  void drop();
  /// Lets the client receive what was sent, then closes the connection.
  void linger();

  ///@{
  /// For the answer to the current request.
  void respond(HttpResponse response);
  void beginEvents(HttpFields headers);
  bool sendEvent(std::string text);
  void endEvents();
  void upgrade(const HttpRequest& request, std::shared_ptr<WebSocketHandler> handler,
               const std::string& subprotocol);
  void onGone(std::function<void()> gone);
  ///@}

  [[nodiscard]] bool gone() const { return closed_ || ended_; }
  [[nodiscard]] std::size_t queuedEvents() const { return events_.size() + body_.size(); }
  [[nodiscard]] Transport& transport() { return transport_; }
  [[nodiscard]] ServerCore& core() { return *core_; }

 private:
  using Clock = std::chrono::steady_clock;
  enum class Phase {
    handshake,  // of TLS
    head,       // reads the header of a request, or waits for one
    body,       // reads its body
    handling,   // waits for the answer
    writing,    // writes the answer
    events,     // writes events
    upgraded,   // carries a WebSocket
    lingering,  // waits until the client has received everything
  };

  void begin();
  void readMore();
  void received(std::size_t bytes);
  void readFailed(ErrorCode error);
  void process();
  void acceptHead();
  void sendContinue();
  void refuse(const HttpRefusal& refusal);
  void dispatch();
  void write(std::string head, std::string body);
  void writeParts();
  void wrote(ErrorCode error);
  void answered();
  void nextRequest();
  void pumpEvents();
  void tellGone();
  void shutDownTls();
  void discard();
  void close();

  ///@{
  /// The time limit of what the connection does now.
  void expectBy(Clock::time_point deadline);
  void waitForDeadline();
  void deadlineFired(ErrorCode error);
  void late();
  bool writeHasProgress();
  void expectBodyProgress();
  ///@}

  const std::shared_ptr<ServerCore> core_;
  Transport transport_;
  TransportStream stream_;
  RequestReader reader_;
  Timer timer_;
  std::string peer_, peerKey_, local_, clientCertificate_;
  std::uint16_t peerPort_ = 0;

  Phase phase_ = Phase::handshake;
  bool reading_ = false;
  bool writing_ = false;
  bool ended_ = false;   // the client sends no more
  bool closed_ = false;  // the socket is closed
  bool keepAlive_ = false;
  bool closeAfterEvents_ = false;
  bool tlsOpen_ = false;  // the handshake is over
  bool timed_ = true;     // the time for the header has begun
  bool isHead_ = false;   // the request asks for an answer without a body

  std::array<char, 8192> buffer_;
  std::string in_;      // received and not yet read
  std::string head_;    // being written
  std::string body_;    // being written
  std::string events_;  // to be written next
  std::function<void()> gone_;
  std::shared_ptr<Upgraded> upgraded_;

  Clock::time_point deadline_ = Clock::time_point::max();
  Clock::time_point armed_ = Clock::time_point::max();  // when the timer fires
  Clock::time_point began_;                             // the body or the write
  std::uint64_t before_ = 0;                            // bytes written when the write began
  std::uint64_t seen_ = 0;                              // bytes written at the last look
};

/// Makes a WebSocket of @p request, which arrived on @p connection and needs no refusal.
[[nodiscard]] std::shared_ptr<Upgraded> startWebSocket(std::shared_ptr<Connection> connection,
                                                       const HttpRequest& request,
                                                       std::shared_ptr<WebSocketHandler> handler,
                                                       const std::string& subprotocol);
/// Why @p request cannot become a WebSocket.
[[nodiscard]] std::optional<HttpResponse> refusalOfUpgrade(const HttpRequest& request,
                                                           const std::string& subprotocol);

}  // namespace runelgw

#endif  // RUNELGW_HTTP_CONNECTION_H_
