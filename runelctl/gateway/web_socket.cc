// SPDX-License-Identifier: Apache-2.0
// The only source that includes the headers of the WebSocket library: they take long to compile.
// Its handlers run in `pump`, on the loop: neither its sockets nor its timers are used.
#include "gateway/web_socket.h"

#include <cerrno>
#include <chrono>
#include <deque>
#include <optional>
#include <utility>

#include <openssl/crypto.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "gateway/byte_stream.h"

namespace runelctl {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using Code = boost::system::error_code;

constexpr char kPath[] = "/v1/attach";
constexpr char kSubprotocol[] = "runel.attach.v1";
constexpr std::size_t kMostMessage = 1048576;

Code codeOf(int number, std::size_t bytes) {
  if (number == 0 && bytes == 0) {
    return asio::error::eof;
  }
  return {number, boost::system::system_category()};
}

// A ByteStream in the form that the library needs. The library gives names of functions.
// NOLINTBEGIN(readability-identifier-naming)
class StreamAdapter {
 public:
  using executor_type = asio::io_context::executor_type;

  StreamAdapter(std::shared_ptr<asio::io_context> context, ByteStream& bytes,
                const std::function<void()>& wake)
      : context_(std::move(context)), bytes_(bytes), wake_(wake) {}
  executor_type get_executor() { return context_->get_executor(); }
  void close() { bytes_.close(); }

  template <typename Buffers, typename Token>
  auto async_read_some(const Buffers& buffers, Token&& token) {
    return asio::async_initiate<Token, void(Code, std::size_t)>(
        [this](auto handler, const Buffers& into) {
          const asio::mutable_buffer first = firstOf<asio::mutable_buffer>(into);
          if (first.size() == 0) {
            complete(std::move(handler), Code(), 0);
          } else {
            bytes_.read(first.data(), first.size(), later(std::move(handler)));
          }
        },
        token, buffers);
  }
  template <typename Buffers, typename Token>
  auto async_write_some(const Buffers& buffers, Token&& token) {
    return asio::async_initiate<Token, void(Code, std::size_t)>(
        [this](auto handler, const Buffers& from) {
          const asio::const_buffer first = firstOf<asio::const_buffer>(from);
          if (first.size() == 0) {
            complete(std::move(handler), Code(), 0);
          } else {
            bytes_.write(first.data(), first.size(), later(std::move(handler)));
          }
        },
        token, buffers);
  }

  template <typename Handler>
  void complete(Handler&& handler, Code code) {
    asio::post(*context_, beast::bind_front_handler(std::forward<Handler>(handler), code));
    wake_();
  }

 private:
  template <typename Buffer, typename Buffers>
  static Buffer firstOf(const Buffers& buffers) {
    for (auto at = asio::buffer_sequence_begin(buffers); at != asio::buffer_sequence_end(buffers);
         ++at) {
      if (Buffer(*at).size() > 0) {
        return Buffer(*at);
      }
    }
    return Buffer();
  }

  template <typename Handler>
  void complete(Handler&& handler, Code code, std::size_t bytes) {
    asio::post(*context_, beast::bind_front_handler(std::forward<Handler>(handler), code, bytes));
    wake_();
  }

  // The handler can be moved only. It counts as work of the context until it is destroyed, which
  // may be after the end of the connection.
  template <typename Handler>
  ByteStream::Moved later(Handler&& handler) {
    auto held = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
    return [this, context = context_, held](int number, std::size_t bytes) {
      complete(std::move(*held), number == 0 && bytes > 0 ? Code() : codeOf(number, bytes), bytes);
    };
  }

  const std::shared_ptr<asio::io_context> context_;
  ByteStream& bytes_;
  const std::function<void()>& wake_;
};

// Found by the library through the namespace of its argument.
void beast_close_socket(StreamAdapter& stream) {
  stream.close();
}

template <typename Handler>
void async_teardown(beast::role_type, StreamAdapter& stream, Handler&& handler) {
  stream.complete(std::forward<Handler>(handler), Code());
}

// NOLINTEND(readability-identifier-naming)

class BeastWebSocket : public WebSocket {
 public:
  BeastWebSocket(runel::Loop& loop, const GatewaySettings& settings, Handlers handlers)
      : loop_(loop),
        settings_(settings),
        handlers_(std::move(handlers)),
        bytes_(loop, settings_),
        stream_(context_, bytes_, wake_) {
    limit_ = loop_.after(settings_.connectTimeout, [this] {
      end({runel::Kind::timeout, runel::Cause::connectTimeout,
           "no gateway at " + settings_.url.text() + ": connect timeout", ETIMEDOUT});
    });
    loop_.next([this, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired()) {
        bytes_.open([this](const runel::Error* why) { connected(why); });
      }
    });
  }

  ~BeastWebSocket() override { loop_.cancel(limit_); }

  std::uint64_t send(std::string message, bool binary) override {
    queuedBytes_ += message.size();
    waiting_.emplace_back(std::move(message), binary);
    if (!writing_) {
      writeNext();
    }
    return ++lastNumber_;
  }
  [[nodiscard]] std::uint64_t begun() const override { return lastNumber_ - waiting_.size(); }
  [[nodiscard]] std::size_t queued() const override { return queuedBytes_; }

 private:
  void connected(const runel::Error* why) {
    if (why != nullptr) {
      end(*why);
      return;
    }
    stream_.read_message_max(kMostMessage);
    stream_.set_option(websocket::stream_base::decorator([this](websocket::request_type& request) {
      request.set(beast::http::field::user_agent, "runelctl/" RUNELCTL_VERSION);
      request.set(beast::http::field::sec_websocket_protocol, kSubprotocol);
      if (!settings_.token.empty()) {
        request.set(beast::http::field::authorization, "Bearer " + settings_.token);
      }
    }));
    authority_ = settings_.url.authority();
    stream_.async_handshake(response_, authority_, kPath, [this](Code code) { upgraded(code); });
    wake();
  }

  void upgraded(Code code) {
    if (code == websocket::error::upgrade_declined) {
      end(declined(response_.result_int()));
    } else if (code) {
      end(absent(textOf(code), numberOf(code)));
    } else if (response_[beast::http::field::sec_websocket_protocol] != kSubprotocol) {
      end(absent("it does not speak " + std::string(kSubprotocol), EPROTO));
    } else {
      loop_.cancel(limit_);
      watchSilence();
      events_.emplace_back([this] { handlers_.opened(); });
      readNext();
    }
  }

  [[nodiscard]] runel::Error declined(unsigned status) const {
    const std::string where = settings_.url.text();
    switch (status) {
      case 401:
        return {runel::Kind::link, runel::Cause::refusedByMaster,
                where + ": the gateway does not accept the token", EACCES};
      case 403:
        return {runel::Kind::link, runel::Cause::refusedByMaster,
                where + ": the gateway does not allow this token to use devices", EACCES};
      case 429:
      case 503:
        return absent("it is busy (HTTP status " + std::to_string(status) + ")", EBUSY);
      default:
        return absent(
            "it does not answer as a gateway (HTTP status " + std::to_string(status) + ")", EPROTO);
    }
  }

  [[nodiscard]] runel::Error absent(const std::string& why, int number) const {
    return {runel::Kind::link, runel::Cause::noMaster,
            "no gateway at " + settings_.url.text() + ": " + why, number};
  }

  [[nodiscard]] runel::Error lost(const std::string& why) const {
    return {runel::Kind::link, runel::Cause::closed, "connection to the gateway lost: " + why,
            ECONNRESET};
  }

  static bool isEnd(Code code) {
    return code == asio::error::eof || code == beast::http::error::end_of_stream ||
           code == beast::http::error::partial_message;
  }

  static int numberOf(Code code) {
    if (code.category() == boost::system::system_category()) {
      return code.value();
    }
    return isEnd(code) ? ECONNRESET : EPROTO;
  }

  [[nodiscard]] std::string textOf(Code code) const {
    if (!bytes_.detail().empty()) {
      return bytes_.detail();
    }
    if (isEnd(code)) {
      return "it closed the connection";
    }
    return code.message();
  }

  void readNext() {
    stream_.async_read(message_, [this](Code code, std::size_t) { received(code); });
    wake();
  }

  void received(Code code) {
    if (code) {
      const websocket::close_reason& reason = stream_.reason();
      const std::string text(reason.reason.data(), reason.reason.size());
      end(lost(code == websocket::error::closed
                   ? "it closed the connection" + (text.empty() ? "" : ": " + text)
                   : textOf(code)));
      return;
    }
    std::string message(static_cast<const char*>(message_.cdata().data()), message_.size());
    message_.consume(message_.size());
    // The next one is read when this one is taken.
    events_.emplace_back([this, message = std::move(message), binary = stream_.got_binary()] {
      const std::weak_ptr<bool> alive = alive_;
      handlers_.message(std::string(message), binary);
      if (!alive.expired() && !ended_) {
        readNext();
      }
    });
  }

  void writeNext() {
    writing_ = true;
    now_ = std::move(waiting_.front());
    waiting_.pop_front();
    queuedBytes_ -= now_.first.size();
    stream_.binary(now_.second);
    stream_.async_write(asio::buffer(now_.first), [this](Code code, std::size_t) {
      writing_ = false;
      if (code) {
        return;  // the reading tells why
      }
      if (!waiting_.empty()) {
        writeNext();
      }
      events_.emplace_back([this] { handlers_.sent(); });
    });
    wake();
  }

  // Asks for a sign of life in each third of the time without one.
  void watchSilence() {
    limit_ = loop_.after(settings_.ioTimeout / 3, [this] {
      silent_ = bytes_.heard() ? 0 : silent_ + 1;
      if (silent_ >= 3) {
        end(lost("no sign of life for " + std::to_string(settings_.ioTimeout.count() / 1000) +
                 " s"));
        return;
      }
      if (silent_ > 0 && !pinging_) {
        pinging_ = true;
        stream_.async_ping({}, [this](Code) { pinging_ = false; });
        wake();
      }
      watchSilence();
    });
  }

  void end(const runel::Error& why) {
    if (ended_) {
      return;
    }
    ended_ = true;
    loop_.cancel(limit_);
    events_.emplace_back([this, why] {
      bytes_.close();
      handlers_.closed(why);
    });
    wake();
  }

  // To be called after each start of an operation: it may be complete at once.
  void wake() {
    if (std::exchange(awake_, true)) {
      return;
    }
    loop_.next([this, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired()) {
        pump();
      }
    });
  }

  void pump() {
    awake_ = false;
    context_->restart();
    context_->poll();
    const std::weak_ptr<bool> alive = alive_;
    while (!events_.empty()) {
      const std::function<void()> event = std::move(events_.front());
      events_.pop_front();
      event();
      if (alive.expired()) {
        return;
      }
    }
  }

  runel::Loop& loop_;
  const GatewaySettings settings_;
  const Handlers handlers_;
  const std::function<void()> wake_ = [this] { wake(); };
  const std::shared_ptr<asio::io_context> context_ = std::make_shared<asio::io_context>(1);
  ByteStream bytes_;
  websocket::stream<StreamAdapter, false> stream_;
  websocket::response_type response_;
  std::string authority_;
  beast::flat_buffer message_;
  std::deque<std::pair<std::string, bool>> waiting_;
  std::pair<std::string, bool> now_;  // the message that is being written
  bool writing_ = false;
  std::size_t queuedBytes_ = 0;
  std::uint64_t lastNumber_ = 0;
  std::deque<std::function<void()>> events_;  // for the user, outside of the library's calls
  bool awake_ = false;
  bool ended_ = false;
  bool pinging_ = false;
  int silent_ = 0;
  runel::Timer limit_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace

bool hasWebSockets() {
  return true;
}

std::unique_ptr<WebSocket> openWebSocket(runel::Loop& loop, const GatewaySettings& settings,
                                         WebSocket::Handlers handlers) {
  // The thread of the connections may still run when the process exits, and OpenSSL would clean up
  // what it uses.
  static const int kept = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  (void)kept;  // it fails only without memory
  return std::make_unique<BeastWebSocket>(loop, settings, std::move(handlers));
}

}  // namespace runelctl
