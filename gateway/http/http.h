// SPDX-License-Identifier: Apache-2.0
// The HTTP server: requests, answers, event streams and WebSockets as plain types. Everything runs
// in the thread of the io_context.
#ifndef RUNELGW_HTTP_HTTP_H_
#define RUNELGW_HTTP_HTTP_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <runel/result.h>

namespace boost::asio {
class io_context;
}  // namespace boost::asio

namespace runelgw {

/// Names and values, in the order in which they were received or are to be sent.
using HttpFields = std::vector<std::pair<std::string, std::string>>;

/// One request. The server has checked its syntax, its Host and its Origin.
struct HttpRequest {
  std::string method;  ///< in capitals
  std::string target;  ///< as received: a path and, after a question mark, a query; or "*"
  std::string path;    ///< the decoded path; valid UTF-8 without control characters, ".." and "."
  HttpFields query;    ///< the decoded query, "+" being a blank; valid UTF-8 without zero bytes
  HttpFields headers;  ///< names in lower case
  std::string body;    ///< empty while the limit of the body is asked for
  std::string peer;    ///< the numeric address of the client
  std::uint16_t peerPort = 0;
  std::string host;  ///< the Host header: a name that this server has, perhaps with a port
  bool tls = false;
  std::string
      clientCertificate;  ///< the common name of the client's verified certificate, or empty

  /// The value of the header @p name (in lower case), the first one of several. Null without it.
  [[nodiscard]] const std::string* header(std::string_view name) const;
  /// The value of @p name in the query, the first one of several. Null without it.
  [[nodiscard]] const std::string* parameter(std::string_view name) const;
  /// The value of the cookie @p name, the first one of several.
  [[nodiscard]] std::optional<std::string> cookie(std::string_view name) const;
  /// Whether the client asks for a WebSocket.
  [[nodiscard]] bool wantsWebSocket() const;
  /// Whether the client offers @p name in Sec-WebSocket-Protocol.
  [[nodiscard]] bool offersSubprotocol(std::string_view name) const;
};

/// An answer. The server adds Content-Length, Date, Connection, X-Content-Type-Options and
/// Referrer-Policy, "Cache-Control: no-store" without another Cache-Control, and
/// Strict-Transport-Security with TLS. It leaves out the body of an answer to HEAD.
struct HttpResponse {
  unsigned status = 200;
  HttpFields headers;
  std::string body;

  /// Adds a header.
  HttpResponse& with(std::string name, std::string value);
};

/// An answer without a body.
[[nodiscard]] HttpResponse emptyResponse(unsigned status);
/// @p text as text/plain in UTF-8.
[[nodiscard]] HttpResponse textResponse(unsigned status, std::string text);
/// @p json as @p type: "application/json", or another type such as that of problem details.
[[nodiscard]] HttpResponse jsonResponse(unsigned status, std::string json,
                                        std::string type = "application/json");
/// The standard phrase for @p status, such as "Not Found".
[[nodiscard]] std::string_view phraseOf(unsigned status);

/// Server-sent events for one client. May be used after the client has gone: everything is ignored
/// then.
class EventStream {
 public:
  EventStream() = default;
  virtual ~EventStream() = default;  ///< ends the stream
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;

  /// Sends one event. @p id and @p event may be empty; @p data may have several lines. Returns
  /// false if the stream has ended, or ends now because the client reads too slowly.
  virtual bool send(const std::string& id, const std::string& event, const std::string& data) = 0;
  /// The bytes that are not sent yet. send() ends the stream when they exceed the limit.
  [[nodiscard]] virtual std::size_t queued() const = 0;
  /// Ends the stream after what is queued.
  virtual void close() = 0;
  [[nodiscard]] virtual bool gone() const = 0;
  /// @p gone is called once, later, when the stream has ended other than by close().
  virtual void onGone(std::function<void()> gone) = 0;
};

/// One open WebSocket. May be used after its end: everything is ignored then.
class WebSocket {
 public:
  WebSocket() = default;
  virtual ~WebSocket() = default;
  WebSocket(const WebSocket&) = delete;
  WebSocket& operator=(const WebSocket&) = delete;

  /// Queues a message. @p text must be valid UTF-8.
  virtual void sendText(std::string text) = 0;
  virtual void sendBinary(std::string bytes) = 0;
  /// The bytes of messages that are queued and not sent.
  [[nodiscard]] virtual std::size_t queued() const = 0;
  /// Stops or resumes reading, so that a client that sends too much waits. While it is stopped, at
  /// most one message that was under way arrives, and neither pongs nor the end of the connection
  /// are seen.
  virtual void pauseReading(bool pause) = 0;
  /// Sends a close message after what is queued. @p reason: at most 123 bytes of UTF-8, longer ones
  /// are cut. No message arrives any more; closed() follows.
  virtual void close(unsigned code, std::string reason) = 0;
  [[nodiscard]] virtual bool gone() const = 0;
};

/// The close codes of RFC 6455 that this server uses.
enum WebSocketCode : unsigned {
  kCloseNormal = 1000,
  kCloseGoingAway = 1001,
  kCloseProtocolError = 1002,
  kCloseInvalidPayload = 1007,
  kClosePolicy = 1008,
  kCloseTooBig = 1009,
  kCloseInternalError = 1011,
  kCloseTryAgainLater = 1013,
};

/// What a WebSocket is used for. The server owns it from the upgrade until closed() has returned.
class WebSocketHandler {
 public:
  WebSocketHandler() = default;
  virtual ~WebSocketHandler() = default;
  WebSocketHandler(const WebSocketHandler&) = delete;
  WebSocketHandler& operator=(const WebSocketHandler&) = delete;

  /// The first call, unless the upgrade fails: then closed() is the only one.
  virtual void opened(std::shared_ptr<WebSocket> socket) = 0;
  virtual void message(std::string bytes, bool binary) = 0;
  /// A message was written: queued() is smaller.
  virtual void sent() = 0;
  /// The last call. @p reason: one sentence.
  virtual void closed(const std::string& reason) = 0;
};

/// One request and its answer. Call exactly one of respond(), startEvents() and upgrade(), now or
/// later. An exchange that is released without any answers 500. May be used after the client has
/// gone: everything is ignored then.
class HttpExchange {
 public:
  HttpExchange() = default;
  virtual ~HttpExchange() = default;
  HttpExchange(const HttpExchange&) = delete;
  HttpExchange& operator=(const HttpExchange&) = delete;

  [[nodiscard]] virtual const HttpRequest& request() const = 0;
  virtual void respond(HttpResponse response) = 0;
  /// Answers 200 with text/event-stream. @p headers are added.
  [[nodiscard]] virtual std::shared_ptr<EventStream> startEvents(HttpFields headers = {}) = 0;
  /// Answers with the upgrade to a WebSocket, or 400 if the request does not ask for one. @p
  /// subprotocol is one that the client offers, or empty. Then calls @p handler.
  virtual void upgrade(std::shared_ptr<WebSocketHandler> handler, std::string subprotocol) = 0;
  /// Whether the client has closed the connection, or its sending side.
  [[nodiscard]] virtual bool gone() const = 0;
  /// @p gone is called once, later, if the client goes before the answer.
  virtual void onGone(std::function<void()> gone) = 0;
};

/// An address to listen on.
struct HttpListener {
  std::string address = "127.0.0.1";  ///< a numeric IPv4 or IPv6 address
  std::uint16_t port = 5180;          ///< 0: the system chooses one
  bool tls = false;
};

/// How the server checks clients by their certificates.
enum class ClientCertificates { none, optional, required };

struct HttpSettings {
  using Milliseconds = std::chrono::milliseconds;

  std::vector<HttpListener> listeners = {HttpListener{}};

  // TLS, version 1.2 or later.
  std::string certificateFile;      ///< PEM: the server's certificate and the ones above it
  std::string keyFile;              ///< PEM
  std::string clientAuthorityFile;  ///< PEM: who signs certificates of clients
  ClientCertificates clientCertificates = ClientCertificates::none;

  // Who may be called, and from where.
  /// The names in Host that are answered, without a port any port. The address of the listener is
  /// always answered, and "localhost" on the loopback.
  std::vector<std::string> names;
  /// Origins, such as "https://fleet.example", that may call besides the one that Host names.
  std::vector<std::string> origins;
  /// A request with this cookie and without an Origin must not change anything.
  std::string sessionCookie;

  // Limits.
  std::size_t maxHeaderBytes = 16384;
  /// The longest body of a request. Empty: defaultBodyBytes for each.
  std::function<std::size_t(const HttpRequest&)> bodyLimit;
  std::size_t defaultBodyBytes = 1048576;
  std::size_t maxConnections = 1000;
  std::size_t maxConnectionsOfPeer = 200;
  std::size_t maxWebSocketMessage = 1048576;
  std::size_t maxQueuedEvents = 1048576;  ///< bytes of one event stream
  Milliseconds headerTimeout{10000};  ///< for TLS and the header, from the first byte to the last
  Milliseconds idleTimeout{75000};    ///< between two requests
  Milliseconds bodyTimeout{10000};    ///< without progress, and before the rate counts
  std::size_t minBodyRate = 1024;     ///< bytes a second
  Milliseconds writeTimeout{20000};   ///< of a client that reads nothing
  Milliseconds heartbeat{15000};      ///< of event streams
  Milliseconds pingInterval{20000};   ///< of WebSockets; without an answer for two they are lost
  Milliseconds drainTimeout{5000};    ///< for what is under way when the server stops

  /// Is told of problems that concern no request: one sentence, rarely the same one.
  std::function<void(const std::string&)> problem;
};

/// Figures for monitoring.
struct HttpState {
  std::size_t connections = 0;
  std::size_t webSockets = 0;
  std::size_t eventStreams = 0;
  std::uint64_t accepted = 0;
  std::uint64_t refused = 0;   ///< connections above a limit
  std::uint64_t requests = 0;  ///< given to the handler
  std::uint64_t malformed =
      0;  ///< answered with 400, 408, 413, 414, 421, 431... by the server itself
  std::uint64_t bytesIn = 0, bytesOut = 0;
};

class HttpServer {
 public:
  using Handler = std::function<void(std::shared_ptr<HttpExchange>)>;

  HttpServer(boost::asio::io_context& context, HttpSettings settings, Handler handler);
  ~HttpServer();  ///< closes all connections; the handler is not called any more
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Reads the certificates and listens. Refuses a listener without TLS elsewhere than on the
  /// loopback.
  [[nodiscard]] runel::Result<void> open();
  /// Reads the certificates again, for the connections from now on. After an error the old ones are
  /// used.
  [[nodiscard]] runel::Result<void> reloadCertificates();
  /// Listens no more, closes idle connections, ends streams and WebSockets, and waits for the
  /// answers that are under way. @p done is called when no connection is left, after drainTimeout
  /// at the latest.
  void stop(std::function<void()> done);

  /// The port of listener @p index.
  [[nodiscard]] std::uint16_t port(std::size_t index = 0) const;
  [[nodiscard]] HttpState state() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace runelgw

#endif  // RUNELGW_HTTP_HTTP_H_
