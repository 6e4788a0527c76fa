// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <deque>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "gateway/http/connection.h"
#include "gateway/http/head_check.h"
#include "text/utf8.h"

namespace runelgw {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

constexpr std::size_t kLongestReason = 123;
constexpr std::size_t kLongestKey = 24;  // 16 bytes in base64
constexpr int kMostMissingPongs = 2;
constexpr std::chrono::seconds kCloseTimeout(5);

// The longest beginning of @p text that fits a close message.
std::string closeReason(std::string text) {
  if (text.size() > kLongestReason) {
    text.resize(kLongestReason);
  }
  while (!zell::isUtf8(text)) {
    text.pop_back();
  }
  return text;
}

// Whether nothing can be read or written after @p error.
bool isOfTransport(ErrorCode error) {
  return error && error.category() != make_error_code(websocket::error::closed).category();
}

// Reads and writes messages. There is at most one read, one write, one ping and one close.
class WebSocketSession : public WebSocket,
                         public Upgraded,
                         public std::enable_shared_from_this<WebSocketSession> {
 public:
  WebSocketSession(std::shared_ptr<Connection> connection,
                   std::shared_ptr<WebSocketHandler> handler)
      : connection_(std::move(connection)),
        settings_(connection_->core().settings),
        stream_(TransportStream(connection_->transport())),
        timer_(connection_->core().context),
        handler_(std::move(handler)) {}
  ~WebSocketSession() override = default;
  WebSocketSession(const WebSocketSession&) = delete;
  WebSocketSession& operator=(const WebSocketSession&) = delete;

  void start(const HttpRequest& request, const std::string& subprotocol);

  void sendText(std::string text) override { send({std::move(text), false}); }
  void sendBinary(std::string bytes) override { send({std::move(bytes), true}); }
  [[nodiscard]] std::size_t queued() const override { return queued_; }
  void pauseReading(bool pause) override;
  void close(unsigned code, std::string reason) override;
  [[nodiscard]] bool gone() const override { return !open_; }

  void stop() override { close(kCloseGoingAway, "The gateway stops."); }
  void abort() override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Message {
    std::string bytes;
    bool binary;
  };

  void opened(ErrorCode error);
  void send(Message message);
  void read();
  void received(ErrorCode error);
  void writeNext();
  void wrote(ErrorCode error);
  void sendClose();
  void finish(const std::string& reason);
  void finishAfter(ErrorCode error);
  void waitForTick();
  void tick();
  void ping();

  std::shared_ptr<Connection> connection_;
  const HttpSettings& settings_;
  websocket::stream<TransportStream, false> stream_;
  Timer timer_;
  std::shared_ptr<WebSocketHandler> handler_;  // empty after closed()
  http::request<http::empty_body> request_;
  beast::flat_buffer in_;
  std::deque<Message> out_;  // the first one is being written
  std::size_t queued_ = 0;
  websocket::close_reason close_;
  bool open_ = false;
  bool closing_ = false;  // close() was called
  bool closeSent_ = false;
  bool paused_ = false;
  bool reading_ = false;
  bool pinging_ = false;
  int missingPongs_ = 0;
  Clock::time_point pingAt_, writeLimit_, closeLimit_;
  std::uint64_t seen_ = 0;  // bytes written when the limit was set
};

void WebSocketSession::start(const HttpRequest& request, const std::string& subprotocol) {
  request_.method(http::verb::get);
  request_.target(request.target);
  request_.version(11);
  for (const auto& [name, value] : request.headers) {
    request_.insert(name, value);
  }
  const bool tls = request.tls;
  stream_.set_option(websocket::stream_base::decorator([subprotocol,
                                                        tls](websocket::response_type& response) {
    response.set(http::field::server, "runelgw");  // otherwise Beast names itself and its version
    if (tls) {
      response.set(http::field::strict_transport_security, "max-age=31536000");
    }
    if (!subprotocol.empty()) {
      response.set(http::field::sec_websocket_protocol, subprotocol);
    }
  }));
  stream_.read_message_max(settings_.maxWebSocketMessage);
  stream_.control_callback([this](websocket::frame_type type, beast::string_view) {
    if (type == websocket::frame_type::pong) {
      missingPongs_ = 0;
    }
  });
  writeLimit_ = Clock::now() + settings_.writeTimeout;
  pingAt_ = Clock::now() + settings_.pingInterval;
  waitForTick();
  stream_.async_accept(request_,
                       [self = shared_from_this()](ErrorCode error) { self->opened(error); });
}

void WebSocketSession::opened(ErrorCode error) {
  if (!handler_) {
    return;
  }
  if (error) {
    finishAfter(error);
    return;
  }
  if (!closing_) {
    const auto handler = handler_;
    handler->opened(shared_from_this());
  }
  open_ = true;  // not before: the handler's first message would be written twice
  writeNext();
  read();
}

void WebSocketSession::send(Message message) {
  if (!handler_ || closing_) {
    return;
  }
  queued_ += message.bytes.size();
  out_.push_back(std::move(message));
  if (open_ && out_.size() == 1) {
    writeNext();
  }
}

void WebSocketSession::pauseReading(bool pause) {
  if (paused_ && !pause) {
    missingPongs_ = 0;
  }
  paused_ = pause;
  read();
}

void WebSocketSession::read() {
  if (!open_ || paused_ || reading_ || closing_ || !handler_) {
    return;
  }
  reading_ = true;
  stream_.async_read(in_, [self = shared_from_this()](ErrorCode error, std::size_t bytes) {
    self->connection_->core().state.bytesIn += bytes;
    self->reading_ = false;
    self->received(error);
  });
}

void WebSocketSession::received(ErrorCode error) {
  if (!handler_) {
    return;
  }
  if (error) {
    if (!closeSent_) {  // else the end of the close operation ends the session
      finishAfter(error);
    }
    return;
  }
  missingPongs_ = 0;
  std::string bytes = beast::buffers_to_string(in_.data());
  in_.clear();
  in_.shrink_to_fit();
  if (closing_) {
    return;
  }
  const auto handler = handler_;
  handler->message(std::move(bytes), stream_.got_binary());
  read();
}

void WebSocketSession::writeNext() {
  if (!open_ || !handler_) {
    return;
  }
  if (out_.empty()) {
    if (closing_) {
      sendClose();
    }
    return;
  }
  writeLimit_ = Clock::now() + settings_.writeTimeout;
  stream_.binary(out_.front().binary);
  stream_.async_write(asio::buffer(out_.front().bytes),
                      [self = shared_from_this()](ErrorCode error, std::size_t bytes) {
                        self->connection_->core().state.bytesOut += bytes;
                        self->wrote(error);
                      });
}

void WebSocketSession::wrote(ErrorCode error) {
  if (!handler_) {
    return;
  }
  queued_ -= out_.front().bytes.size();
  out_.pop_front();
  if (error) {
    finishAfter(error);
    return;
  }
  writeNext();
  if (!closing_) {
    const auto handler = handler_;
    handler->sent();
  }
}

void WebSocketSession::close(unsigned code, std::string reason) {
  if (!handler_ || closing_) {
    return;
  }
  closing_ = true;
  close_ = websocket::close_reason(static_cast<websocket::close_code>(code),
                                   closeReason(std::move(reason)));
  closeLimit_ = Clock::now() + kCloseTimeout;
  if (open_ && out_.empty()) {
    sendClose();
  }
}

void WebSocketSession::sendClose() {
  if (std::exchange(closeSent_, true)) {
    return;
  }
  closeLimit_ = Clock::now() + kCloseTimeout;
  stream_.async_close(close_, [self = shared_from_this()](ErrorCode error) {
    if (isOfTransport(error)) {
      self->connection_->drop();
    }
    self->finish("This side closed the WebSocket: " +
                 std::string(self->close_.reason.data(), self->close_.reason.size()));
  });
}

void WebSocketSession::finishAfter(ErrorCode error) {
  if (isOfTransport(error)) {
    connection_->drop();
    finish("The connection was lost: " + error.message() + ".");
  } else if (error == websocket::error::closed) {
    finish("The client closed the WebSocket (" + std::to_string(stream_.reason().code) + ").");
  } else {
    finish("The client violated the WebSocket protocol: " + error.message() + ".");
  }
}

void WebSocketSession::finish(const std::string& reason) {
  open_ = false;
  timer_.cancel();
  if (const auto handler = std::exchange(handler_, nullptr)) {
    handler->closed(reason);
  }
  connection_->linger();
}

void WebSocketSession::abort() {
  open_ = false;
  handler_ = nullptr;
  timer_.cancel();
}

void WebSocketSession::waitForTick() {
  const auto shortest = std::min(
      {settings_.pingInterval, settings_.writeTimeout, std::chrono::milliseconds(kCloseTimeout)});
  timer_.expires_after(std::max(shortest / 4, HttpSettings::Milliseconds(1)));
  timer_.async_wait([self = shared_from_this()](ErrorCode error) {
    if (!error && self->handler_) {
      self->tick();
    }
  });
}

void WebSocketSession::tick() {
  const auto now = Clock::now();
  const std::uint64_t written = connection_->transport().written();
  const bool writing = !open_ || !out_.empty() || pinging_;
  if (!writing || std::exchange(seen_, written) != written) {
    writeLimit_ = now + settings_.writeTimeout;
  }
  if (closing_ && now > closeLimit_ && (closeSent_ || out_.empty())) {
    connection_->drop();
    finish("The client did not answer the close message.");
    return;
  }
  if (now > writeLimit_) {
    connection_->drop();
    finish("The client does not read.");
    return;
  }
  if (now >= pingAt_) {
    pingAt_ = now + settings_.pingInterval;
    if (!paused_ && missingPongs_ >= kMostMissingPongs) {
      connection_->drop();
      finish("The client did not answer pings.");
      return;
    }
    ping();
  }
  waitForTick();
}

void WebSocketSession::ping() {
  if (!open_ || pinging_ || closing_) {
    return;
  }
  pinging_ = true;
  ++missingPongs_;
  stream_.async_ping({}, [self = shared_from_this()](ErrorCode) { self->pinging_ = false; });
}

}  // namespace

std::shared_ptr<Upgraded> startWebSocket(std::shared_ptr<Connection> connection,
                                         const HttpRequest& request,
                                         std::shared_ptr<WebSocketHandler> handler,
                                         const std::string& subprotocol) {
  auto session = std::make_shared<WebSocketSession>(std::move(connection), std::move(handler));
  session->start(request, subprotocol);
  return session;
}

std::optional<HttpResponse> refusalOfUpgrade(const HttpRequest& request,
                                             const std::string& subprotocol) {
  const std::string* connection = request.header("connection");
  const std::string* version = request.header("sec-websocket-version");
  const std::string* key = request.header("sec-websocket-key");
  if (request.method != "GET" || !request.wantsWebSocket() || !connection ||
      !http::token_list(*connection).exists("upgrade") || !request.body.empty()) {
    return responseOf({400, "The request does not ask for a WebSocket."});
  }
  if (!version || *version != "13") {
    return responseOf({426, "Only version 13 of the WebSocket protocol is spoken here."})
        .with("Upgrade", "websocket")
        .with("Sec-WebSocket-Version", "13");
  }
  if (!key || key->size() != kLongestKey) {
    return responseOf({400, "Sec-WebSocket-Key is malformed."});
  }
  if (!subprotocol.empty() && !request.offersSubprotocol(subprotocol)) {
    return responseOf({400, "The subprotocol " + subprotocol + " is not offered."});
  }
  return std::nullopt;
}

}  // namespace runelgw
