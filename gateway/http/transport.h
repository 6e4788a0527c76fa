// SPDX-License-Identifier: Apache-2.0
// A TCP connection with or without TLS.
#ifndef RUNELGW_HTTP_TRANSPORT_H_
#define RUNELGW_HTTP_TRANSPORT_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include <boost/asio/associated_allocator.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/role.hpp>

namespace runelgw {

// With the executor of an io_context instead of any executor, calls are not virtual.
using IoExecutor = boost::asio::io_context::executor_type;
using Tcp = boost::asio::ip::tcp;
using Socket = boost::asio::basic_stream_socket<Tcp, IoExecutor>;
using Timer = boost::asio::basic_waitable_timer<
    std::chrono::steady_clock, boost::asio::wait_traits<std::chrono::steady_clock>, IoExecutor>;
using TlsContext = boost::asio::ssl::context;
using ErrorCode = boost::system::error_code;

/// One connection. Counts its bytes, so that its owner sees progress within a long write.
class Transport {
 public:
  using TlsStream = boost::asio::ssl::stream<Socket&>;

  /// Without @p tls it is a plain connection.
  Transport(Socket socket, std::shared_ptr<TlsContext> tls)
      : socket_(std::move(socket)), context_(std::move(tls)) {
    if (context_) {
      tls_.emplace(socket_, *context_);
    }
  }
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  [[nodiscard]] Socket& socket() { return socket_; }
  [[nodiscard]] TlsStream* tls() { return tls_ ? &*tls_ : nullptr; }
  [[nodiscard]] std::uint64_t received() const { return received_; }
  [[nodiscard]] std::uint64_t written() const { return written_; }

 private:
  friend class TransportStream;

  Socket socket_;
  std::shared_ptr<TlsContext> context_;
  std::optional<TlsStream> tls_;
  std::uint64_t received_ = 0;
  std::uint64_t written_ = 0;
};

/// A transport as the algorithms of Asio and Beast use it. Copies refer to the same transport.
class TransportStream {
 public:
  using executor_type = IoExecutor;

  explicit TransportStream(Transport& transport) : transport_(&transport) {}

  [[nodiscard]] executor_type get_executor() { return transport_->socket_.get_executor(); }
  [[nodiscard]] Transport& transport() { return *transport_; }

  template <typename Buffers, typename Handler>
  auto async_read_some(const Buffers& buffers, Handler&& handler) {
    return boost::asio::async_initiate<Handler, void(ErrorCode, std::size_t)>(
        [this, &buffers](auto&& token) {
          auto counting = count(transport_->received_, std::forward<decltype(token)>(token));
          if (transport_->tls_) {
            transport_->tls_->async_read_some(buffers, std::move(counting));
          } else {
            transport_->socket_.async_read_some(buffers, std::move(counting));
          }
        },
        handler);
  }

  template <typename Buffers, typename Handler>
  auto async_write_some(const Buffers& buffers, Handler&& handler) {
    return boost::asio::async_initiate<Handler, void(ErrorCode, std::size_t)>(
        [this, &buffers](auto&& token) {
          auto counting = count(transport_->written_, std::forward<decltype(token)>(token));
          if (transport_->tls_) {
            transport_->tls_->async_write_some(buffers, std::move(counting));
          } else {
            transport_->socket_.async_write_some(buffers, std::move(counting));
          }
        },
        handler);
  }

 private:
  template <typename Handler>
  struct Counting {
    using allocator_type = boost::asio::associated_allocator_t<Handler>;
    using executor_type = boost::asio::associated_executor_t<Handler, IoExecutor>;

    [[nodiscard]] allocator_type get_allocator() const noexcept {
      return boost::asio::get_associated_allocator(handler);
    }
    [[nodiscard]] executor_type get_executor() const noexcept {
      return boost::asio::get_associated_executor(handler, executor);
    }
    void operator()(ErrorCode error, std::size_t bytes) {
      *counter += bytes;
      handler(error, bytes);
    }

    std::uint64_t* counter;
    IoExecutor executor;
    Handler handler;
  };

  template <typename Handler>
  auto count(std::uint64_t& counter, Handler&& handler) {
    return Counting<std::decay_t<Handler>>{&counter, get_executor(),
                                           std::forward<Handler>(handler)};
  }

  Transport* transport_;
};

/// Required by Beast for its own time limits, which are not used.
inline void beast_close_socket(TransportStream& stream) {
  ErrorCode error;
  stream.transport().socket().close(error);
}

/// Called by Beast at the end of a WebSocket. The owner of the transport closes it.
template <typename Handler>
void async_teardown(boost::beast::role_type, TransportStream& stream, Handler&& handler) {
  boost::asio::post(stream.get_executor(),
                    [handler = std::forward<Handler>(handler)]() mutable { handler(ErrorCode()); });
}

}  // namespace runelgw

#endif  // RUNELGW_HTTP_TRANSPORT_H_
