// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/connection.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/write.hpp>

#include "gateway/http/tls.h"

namespace runelgw {
namespace {

namespace asio = boost::asio;

constexpr std::chrono::seconds kLinger(2);
constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr char kHeartbeat[] = ":\n\n";

// Whether the bytes below TLS may continue after @p error.
bool isOfTls(ErrorCode error) {
  return error.category() == asio::error::get_ssl_category();
}

// One event stream, as its user sees it.
class Stream : public EventStream {
 public:
  explicit Stream(std::shared_ptr<Connection> connection) : connection_(std::move(connection)) {}
  ~Stream() override { connection_->endEvents(); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  bool send(const std::string& id, const std::string& event, const std::string& data) override {
    return !closed_ && connection_->sendEvent(eventText(id, event, data));
  }
  [[nodiscard]] std::size_t queued() const override { return connection_->queuedEvents(); }
  void close() override {
    closed_ = true;
    connection_->endEvents();
  }
  [[nodiscard]] bool gone() const override { return connection_->gone(); }
  void onGone(std::function<void()> gone) override { connection_->onGone(std::move(gone)); }

 private:
  const std::shared_ptr<Connection> connection_;
  bool closed_ = false;
};

// One request and its answer, as the handler sees it.
class Exchange : public HttpExchange {
 public:
  Exchange(std::shared_ptr<Connection> connection, HttpRequest request)
      : connection_(std::move(connection)), request_(std::move(request)) {}
  ~Exchange() override {
    if (!answered_) {
      connection_->respond(responseOf({500, "The request was not answered."}));
    }
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  [[nodiscard]] const HttpRequest& request() const override { return request_; }
  void respond(HttpResponse response) override {
    if (!std::exchange(answered_, true)) {
      connection_->respond(std::move(response));
    }
  }
  [[nodiscard]] std::shared_ptr<EventStream> startEvents(HttpFields headers) override {
    if (!std::exchange(answered_, true)) {
      connection_->beginEvents(std::move(headers));
    }
    return std::make_shared<Stream>(connection_);
  }
  void upgrade(std::shared_ptr<WebSocketHandler> handler, std::string subprotocol) override {
    if (!std::exchange(answered_, true)) {
      connection_->upgrade(request_, std::move(handler), subprotocol);
    }
  }
  [[nodiscard]] bool gone() const override { return connection_->gone(); }
  void onGone(std::function<void()> gone) override {
    if (!answered_) {
      connection_->onGone(std::move(gone));
    }
  }

 private:
  const std::shared_ptr<Connection> connection_;
  const HttpRequest request_;
  bool answered_ = false;
};

}  // namespace

std::string peerKey(const asio::ip::address& address) {
  if (!address.is_v6() || address.is_loopback()) {
    return address.to_string();
  }
  auto bytes = address.to_v6().to_bytes();
  std::fill(bytes.begin() + 8, bytes.end(), std::uint8_t{0});
  return asio::ip::address_v6(bytes).to_string() + "/64";
}

Connection::Connection(std::shared_ptr<ServerCore> core, Socket socket,
                       std::shared_ptr<TlsContext> tls)
    : core_(std::move(core)),
      transport_(std::move(socket), std::move(tls)),
      stream_(transport_),
      reader_(core_->settings.maxHeaderBytes),
      timer_(core_->context) {}

void Connection::start() {
  ErrorCode error;
  const auto peer = transport_.socket().remote_endpoint(error);
  const auto local = transport_.socket().local_endpoint(error);
  if (error) {  // it has gone already
    transport_.socket().close(error);
    return;
  }
  peer_ = peer.address().to_string();
  peerKey_ = peerKey(peer.address());
  peerPort_ = peer.port();
  local_ = local.address().to_string();
  core_->connections.insert(shared_from_this());
  ++core_->peers[peerKey_];
  ++core_->state.connections;
  expectBy(Clock::now() + core_->settings.headerTimeout);
  if (!transport_.tls()) {
    begin();
    return;
  }
  transport_.tls()->async_handshake(
      asio::ssl::stream_base::server, [self = shared_from_this()](ErrorCode failure) {
        if (failure || self->closed_) {
          self->drop();
          return;
        }
        self->tlsOpen_ = true;
        self->clientCertificate_ = verifiedNameOf(*self->transport_.tls());
        self->begin();
      });
}

void Connection::begin() {
  phase_ = Phase::head;
  readMore();
}

void Connection::readMore() {
  if (reading_ || closed_) {
    return;
  }
  reading_ = true;
  auto done = [self = shared_from_this()](ErrorCode error, std::size_t bytes) {
    self->reading_ = false;
    if (self->closed_) {
      return;
    }
    if (!error) {
      self->received(bytes);
    } else if (error == asio::error::eof || self->phase_ == Phase::lingering) {
      self->readFailed(error);
    } else {
      self->drop();
    }
  };
  if (phase_ == Phase::lingering) {  // without TLS: it is not read, and it may be over
    transport_.socket().async_read_some(asio::buffer(buffer_), std::move(done));
  } else {
    stream_.async_read_some(asio::buffer(buffer_), std::move(done));
  }
}

void Connection::received(std::size_t bytes) {
  core_->state.bytesIn += bytes;
  switch (phase_) {
    case Phase::head:
    case Phase::body:
      in_.append(buffer_.data(), bytes);
      process();
      break;
    case Phase::handling:
    case Phase::writing:
      in_.append(buffer_.data(), bytes);
      if (in_.size() < core_->settings.maxHeaderBytes) {  // else the client waits
        readMore();
      }
      break;
    case Phase::events:
    case Phase::lingering:
      readMore();
      break;
    case Phase::handshake:
    case Phase::upgraded:
      break;
  }
}

void Connection::readFailed(ErrorCode error) {
  if (phase_ == Phase::lingering && isOfTls(error)) {
    readMore();
    return;
  }
  ended_ = true;
  if (phase_ == Phase::handling) {
    tellGone();
  } else if (phase_ != Phase::writing) {
    drop();
  }
}

void Connection::process() {
  switch (reader_.read(in_)) {
    case RequestReader::State::head:
      if (!in_.empty() && !std::exchange(timed_, true)) {
        expectBy(Clock::now() + core_->settings.headerTimeout);
      }
      readMore();
      break;
    case RequestReader::State::headRead:
      acceptHead();
      break;
    case RequestReader::State::body:
      expectBodyProgress();
      readMore();
      break;
    case RequestReader::State::complete:
      dispatch();
      break;
    case RequestReader::State::refused:
      refuse(reader_.refusal());
      break;
  }
}

void Connection::acceptHead() {
  HttpRequest& request = reader_.request();
  request.peer = peer_;
  request.peerPort = peerPort_;
  request.tls = tlsOpen_;
  request.clientCertificate = clientCertificate_;
  if (const auto refusal = core_->policy.refusal(request, local_)) {
    refuse(*refusal);
    return;
  }
  const HttpSettings& settings = core_->settings;
  const auto state = reader_.readBody(settings.bodyLimit ? settings.bodyLimit(request)
                                                         : settings.defaultBodyBytes);
  phase_ = Phase::body;
  began_ = Clock::now();
  if (state == RequestReader::State::body && reader_.expectsContinue() && in_.empty()) {
    sendContinue();
  } else {
    process();
  }
}

void Connection::sendContinue() {
  head_ = kContinue;
  writeParts();
}

void Connection::refuse(const HttpRefusal& refusal) {
  ++core_->state.malformed;
  isHead_ = reader_.request().method == "HEAD";
  keepAlive_ = false;
  const HttpResponse response = responseOf(refusal);
  const ResponseFrame frame{reader_.http11(), tlsOpen_, false, response.body.size(),
                            std::time(nullptr)};
  write(*headOf(response, frame), isHead_ ? std::string() : response.body);
}

void Connection::dispatch() {
  phase_ = Phase::handling;
  deadline_ = Clock::time_point::max();
  ++core_->state.requests;
  isHead_ = reader_.request().method == "HEAD";
  auto exchange = std::make_shared<Exchange>(shared_from_this(), std::move(reader_.request()));
  if (!exchange->request().wantsWebSocket()) {  // which would have to read what follows
    readMore();
  }
  if (core_->handler) {
    core_->handler(std::move(exchange));
  }
}

void Connection::respond(HttpResponse response) {
  if (closed_ || phase_ != Phase::handling) {
    return;
  }
  gone_ = nullptr;
  keepAlive_ = reader_.keepAlive() && !core_->stopping && !ended_;
  ResponseFrame frame{reader_.http11(), tlsOpen_, keepAlive_, response.body.size(),
                      std::time(nullptr)};
  auto head = headOf(response, frame);
  if (!head) {
    response = responseOf({500, "The answer has a malformed header."});
    frame.length = response.body.size();
    head = headOf(response, frame);
  }
  const bool bodiless = isHead_ || isBodiless(response.status);
  write(*std::move(head), bodiless ? std::string() : std::move(response.body));
}

void Connection::write(std::string head, std::string body) {
  phase_ = Phase::writing;
  head_ = std::move(head);
  body_ = std::move(body);
  writeParts();
}

void Connection::writeParts() {
  writing_ = true;
  began_ = Clock::now();
  before_ = seen_ = transport_.written();
  expectBy(began_ + core_->settings.writeTimeout);
  const std::array<asio::const_buffer, 2> parts = {asio::buffer(head_), asio::buffer(body_)};
  asio::async_write(stream_, parts,
                    [self = shared_from_this()](ErrorCode error, std::size_t bytes) {
                      self->core_->state.bytesOut += bytes;
                      self->wrote(error);
                    });
}

void Connection::wrote(ErrorCode error) {
  writing_ = false;
  head_.clear();
  body_ = std::string();
  if (closed_) {
    return;
  }
  if (error) {
    drop();
  } else if (phase_ == Phase::writing) {
    answered();
  } else if (phase_ == Phase::events) {
    pumpEvents();
  } else if (phase_ == Phase::body) {  // after the interim answer
    began_ = Clock::now();
    process();
  }
}

void Connection::answered() {
  if (keepAlive_ && !ended_ && !core_->stopping) {
    nextRequest();
  } else {
    linger();
  }
}

void Connection::nextRequest() {
  reader_.next();
  phase_ = Phase::head;
  timed_ = false;
  expectBy(Clock::now() + core_->settings.idleTimeout);
  process();
}

void Connection::beginEvents(HttpFields headers) {
  if (closed_ || phase_ != Phase::handling) {
    return;
  }
  gone_ = nullptr;
  HttpResponse response{200, std::move(headers), {}};
  response.with("Content-Type", "text/event-stream");
  const ResponseFrame frame{reader_.http11(), tlsOpen_, false, std::nullopt, std::time(nullptr)};
  const auto head = headOf(response, frame);
  if (!head || isHead_) {
    respond(head ? emptyResponse(200) : responseOf({500, "The answer has a malformed header."}));
    return;
  }
  phase_ = Phase::events;
  ++core_->state.eventStreams;
  in_.clear();
  readMore();
  head_ = *head;
  writeParts();
}

bool Connection::sendEvent(std::string text) {
  if (closed_ || phase_ != Phase::events || closeAfterEvents_) {
    return false;
  }
  if (queuedEvents() + text.size() > core_->settings.maxQueuedEvents) {
    drop();
    return false;
  }
  events_ += text;
  if (!writing_) {
    pumpEvents();
  }
  return true;
}

void Connection::endEvents() {
  if (closed_ || phase_ != Phase::events || closeAfterEvents_) {
    return;
  }
  closeAfterEvents_ = true;
  gone_ = nullptr;
  if (!writing_) {
    pumpEvents();
  }
}

void Connection::pumpEvents() {
  if (!events_.empty()) {
    body_ = std::exchange(events_, std::string());
    writeParts();
  } else if (closeAfterEvents_) {
    linger();
  } else {
    expectBy(Clock::now() + core_->settings.heartbeat);
  }
}

void Connection::upgrade(const HttpRequest& request, std::shared_ptr<WebSocketHandler> handler,
                         const std::string& subprotocol) {
  if (closed_ || phase_ != Phase::handling) {
    handler->closed("The client has gone.");
    return;
  }
  auto refusal = refusalOfUpgrade(request, subprotocol);
  if (!refusal && (reading_ || !in_.empty() || core_->stopping)) {
    refusal = core_->stopping ? responseOf({503, "The server stops."})
                              : responseOf({400, "Bytes follow the request for a WebSocket."});
  }
  if (refusal) {
    handler->closed("The request cannot become a WebSocket.");
    respond(*std::move(refusal));
    return;
  }
  gone_ = nullptr;
  phase_ = Phase::upgraded;
  ++core_->state.webSockets;
  upgraded_ = startWebSocket(shared_from_this(), request, std::move(handler), subprotocol);
}

void Connection::onGone(std::function<void()> gone) {
  gone_ = std::move(gone);
  if (closed_ || ended_) {
    tellGone();
  }
}

void Connection::tellGone() {
  if (gone_) {
    asio::post(core_->context, std::exchange(gone_, nullptr));
  }
}

void Connection::stop() {
  switch (phase_) {
    case Phase::handshake:
      drop();
      break;
    case Phase::head:
      if (in_.empty()) {
        linger();
      }
      break;
    case Phase::events:
      endEvents();
      break;
    case Phase::upgraded:
      if (upgraded_) {
        upgraded_->stop();
      }
      break;
    case Phase::body:
    case Phase::handling:
    case Phase::writing:
    case Phase::lingering:
      break;
  }
}

void Connection::abort() {
  gone_ = nullptr;
  if (upgraded_) {
    upgraded_->abort();
  }
  close();
}

void Connection::drop() {
  tellGone();
  close();
}

void Connection::linger() {
  if (closed_) {
    return;
  }
  if (phase_ == Phase::events) {
    --core_->state.eventStreams;
  } else if (phase_ == Phase::upgraded) {
    --core_->state.webSockets;
  }
  phase_ = Phase::lingering;
  upgraded_.reset();
  in_.clear();
  expectBy(Clock::now() + kLinger);
  if (tlsOpen_) {
    shutDownTls();
  } else if (ended_) {
    drop();
  } else {
    discard();
  }
}

void Connection::shutDownTls() {
  transport_.tls()->async_shutdown([self = shared_from_this()](ErrorCode error) {
    if (isOfTls(error)) {  // such as a request that came too late
      self->discard();
    } else {  // the client has closed, too
      self->drop();
    }
  });
}

// Closing a socket with unread bytes would make the client lose what it has not read. Must not be
// called after the end of the bytes was read: Asio would wait for another end.
void Connection::discard() {
  if (closed_) {
    return;
  }
  ErrorCode error;
  transport_.socket().shutdown(Socket::shutdown_send, error);
  if (error) {
    drop();
  } else {
    readMore();
  }
}

void Connection::close() {
  if (closed_) {
    return;
  }
  closed_ = true;
  if (phase_ == Phase::events) {
    --core_->state.eventStreams;
  } else if (phase_ == Phase::upgraded) {
    --core_->state.webSockets;
  }
  const auto self = shared_from_this();
  ErrorCode error;
  transport_.socket().close(error);
  timer_.cancel();
  upgraded_.reset();
  --core_->state.connections;
  const auto peer = core_->peers.find(peerKey_);
  if (--peer->second == 0) {
    core_->peers.erase(peer);
  }
  core_->connections.erase(self);
  if (core_->connections.empty() && core_->stopped) {
    asio::post(core_->context, std::exchange(core_->stopped, nullptr));
  }
}

void Connection::expectBy(Clock::time_point deadline) {
  deadline_ = deadline;
  if (deadline < armed_) {
    waitForDeadline();
  }
}

void Connection::waitForDeadline() {
  armed_ = deadline_;
  timer_.expires_at(armed_);
  timer_.async_wait([self = shared_from_this()](ErrorCode error) { self->deadlineFired(error); });
}

void Connection::deadlineFired(ErrorCode error) {
  if (error || closed_) {  // replaced by another wait
    return;
  }
  armed_ = Clock::time_point::max();
  if (deadline_ == Clock::time_point::max()) {
    return;
  }
  if (Clock::now() < deadline_) {
    waitForDeadline();
    return;
  }
  deadline_ = Clock::time_point::max();
  late();
}

void Connection::late() {
  if (writing_) {
    if (!writeHasProgress()) {
      drop();
    }
    return;
  }
  switch (phase_) {
    case Phase::head:
      if (in_.empty()) {
        linger();
      } else {
        refuse({408, "The header took too long."});
      }
      break;
    case Phase::body:
      refuse({408, "The body took too long."});
      break;
    case Phase::events:
      sendEvent(kHeartbeat);
      break;
    case Phase::handshake:
    case Phase::handling:
    case Phase::writing:
    case Phase::upgraded:
    case Phase::lingering:
      drop();
      break;
  }
}

// Also sets the next deadline. A client that reads byte by byte must not last forever.
bool Connection::writeHasProgress() {
  const std::uint64_t written = transport_.written();
  const auto allowed = core_->settings.writeTimeout +
                       std::chrono::seconds((written - before_) / core_->settings.minBodyRate);
  const auto now = Clock::now();
  if (std::exchange(seen_, written) == written || now > began_ + allowed) {
    return false;
  }
  expectBy(now + core_->settings.writeTimeout);
  return true;
}

void Connection::expectBodyProgress() {
  const HttpSettings& settings = core_->settings;
  const auto earned = std::chrono::seconds(reader_.bodyBytes() / settings.minBodyRate);
  expectBy(std::min(Clock::now(), began_ + earned) + settings.bodyTimeout);
}

}  // namespace runelgw
