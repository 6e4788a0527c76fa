// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>

#include <utility>

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/v6_only.hpp>

#include "gateway/http/connection.h"
#include "gateway/http/http.h"
#include "gateway/http/policy.h"
#include "gateway/http/server_core.h"
#include "gateway/http/tls.h"
#include "gateway/http/transport.h"

namespace runelgw {
namespace {

namespace asio = boost::asio;
using Acceptor = asio::basic_socket_acceptor<Tcp, IoExecutor>;

constexpr std::chrono::milliseconds kPause(200);  // without a free descriptor
constexpr std::chrono::minutes kProblemInterval(1);

void closeOnExec(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

runel::Error refused(std::string text, int number = 0) {
  return {runel::Kind::local, runel::Cause::other, std::move(text), number};
}

std::string nameOf(const HttpListener& listener) {
  const bool six = listener.address.find(':') != std::string::npos;
  return (six ? '[' + listener.address + ']' : listener.address) + ':' +
         std::to_string(listener.port);
}

}  // namespace

class HttpServer::Impl : public std::enable_shared_from_this<HttpServer::Impl> {
 public:
  Impl(asio::io_context& context, HttpSettings settings, Handler handler)
      : core_(std::make_shared<ServerCore>(context, std::move(settings), std::move(handler))),
        drain_(context) {}

  runel::Result<void> open();
  runel::Result<void> reload();
  void stop(std::function<void()> done);
  void abort();
  [[nodiscard]] std::uint16_t port(std::size_t index) const {
    ErrorCode error;
    return listeners_.at(index)->acceptor.local_endpoint(error).port();
  }
  [[nodiscard]] HttpState state() const { return core_->state; }

 private:
  struct Listener {
    explicit Listener(asio::io_context& context) : acceptor(context), pause(context) {}

    Acceptor acceptor;
    Timer pause;
    bool tls = false;
  };

  runel::Result<void> listen(const HttpListener& chosen);
  void accept(const std::shared_ptr<Listener>& listener);
  void accepted(const std::shared_ptr<Listener>& listener, ErrorCode error, Socket socket);
  void admit(const Listener& listener, Socket socket);
  void rest(const std::shared_ptr<Listener>& listener, ErrorCode error);
  void closeListeners();

  const std::shared_ptr<ServerCore> core_;
  std::vector<std::shared_ptr<Listener>> listeners_;
  std::shared_ptr<TlsContext> tls_;
  Timer drain_;
  std::chrono::steady_clock::time_point lastProblem_;
};

runel::Result<void> HttpServer::Impl::open() {
  bool tls = false;
  for (const HttpListener& listener : core_->settings.listeners) {
    tls = tls || listener.tls;
    if (!listener.tls && !isLoopback(listener.address)) {
      return refused("without TLS the gateway listens on the loopback only, not on " +
                     nameOf(listener));
    }
  }
  if (tls) {
    if (auto read = reload(); !read) {
      return read;
    }
  }
  for (const HttpListener& listener : core_->settings.listeners) {
    if (auto listening = listen(listener); !listening) {
      closeListeners();
      return listening;
    }
  }
  for (const auto& listener : listeners_) {
    accept(listener);
  }
  return {};
}

runel::Result<void> HttpServer::Impl::reload() {
  auto read = readCertificates(core_->settings);
  if (!read) {
    return read.error();
  }
  tls_ = *std::move(read);
  return {};
}

runel::Result<void> HttpServer::Impl::listen(const HttpListener& chosen) {
  ErrorCode error;
  const auto address = asio::ip::make_address(chosen.address, error);
  if (error) {
    return refused(chosen.address + " is not an IPv4 or IPv6 address");
  }
  auto listener = std::make_shared<Listener>(core_->context);
  listener->tls = chosen.tls;
  Acceptor& acceptor = listener->acceptor;
  const Tcp::endpoint endpoint(address, chosen.port);
  acceptor.open(endpoint.protocol(), error);
  if (!error) {
    closeOnExec(acceptor.native_handle());
    acceptor.set_option(Acceptor::reuse_address(true), error);
  }
  if (!error && address.is_v6()) {
    acceptor.set_option(asio::ip::v6_only(true), error);
  }
  if (!error) {
    acceptor.bind(endpoint, error);
  }
  if (!error) {
    acceptor.listen(Acceptor::max_listen_connections, error);
  }
  if (error) {
    return refused("cannot listen on " + nameOf(chosen) + ": " + error.message(), error.value());
  }
  listeners_.push_back(std::move(listener));
  return {};
}

void HttpServer::Impl::accept(const std::shared_ptr<Listener>& listener) {
  listener->acceptor.async_accept(
      core_->context, [self = shared_from_this(), listener](ErrorCode error, Socket socket) {
        self->accepted(listener, error, std::move(socket));
      });
}

void HttpServer::Impl::accepted(const std::shared_ptr<Listener>& listener, ErrorCode error,
                                Socket socket) {
  if (!listener->acceptor.is_open()) {
    return;
  }
  if (!error) {
    admit(*listener, std::move(socket));
  }
  if (!error || error == asio::error::connection_aborted) {
    accept(listener);
  } else {
    rest(listener, error);
  }
}

void HttpServer::Impl::admit(const Listener& listener, Socket socket) {
  closeOnExec(socket.native_handle());
  ErrorCode error;
  const auto peer = core_->peers.find(peerKey(socket.remote_endpoint(error).address()));
  const std::size_t ofPeer = peer == core_->peers.end() ? 0 : peer->second;
  if (core_->connections.size() >= core_->settings.maxConnections ||
      ofPeer >= core_->settings.maxConnectionsOfPeer) {
    ++core_->state.refused;
    return;
  }
  ++core_->state.accepted;
  socket.set_option(Tcp::no_delay(true), error);
  socket.set_option(Socket::keep_alive(true), error);
  std::make_shared<Connection>(core_, std::move(socket), listener.tls ? tls_ : nullptr)->start();
}

// The connection stays in the kernel's queue, and accepting it again at once would fail again.
void HttpServer::Impl::rest(const std::shared_ptr<Listener>& listener, ErrorCode error) {
  const auto now = std::chrono::steady_clock::now();
  if (core_->settings.problem && now - lastProblem_ > kProblemInterval) {
    lastProblem_ = now;
    core_->settings.problem("cannot accept connections of HTTP: " + error.message());
  }
  listener->pause.expires_after(kPause);
  listener->pause.async_wait([self = shared_from_this(), listener](ErrorCode cancelled) {
    if (!cancelled && listener->acceptor.is_open()) {
      self->accept(listener);
    }
  });
}

void HttpServer::Impl::closeListeners() {
  ErrorCode error;
  for (const auto& listener : listeners_) {
    listener->acceptor.close(error);
    listener->pause.cancel();
  }
}

void HttpServer::Impl::stop(std::function<void()> done) {
  closeListeners();
  core_->stopping = true;
  core_->stopped = [self = shared_from_this(), done = std::move(done)] {
    self->drain_.cancel();
    done();
  };
  const auto connections = core_->connections;  // they leave the set while they stop
  for (const auto& connection : connections) {
    connection->stop();
  }
  if (connections.empty()) {
    asio::post(core_->context, std::exchange(core_->stopped, nullptr));
    return;
  }
  drain_.expires_after(core_->settings.drainTimeout);
  drain_.async_wait([self = shared_from_this()](ErrorCode cancelled) {
    const auto left = self->core_->connections;
    for (const auto& connection : left) {
      if (!cancelled) {
        connection->drop();
      }
    }
  });
}

void HttpServer::Impl::abort() {
  closeListeners();
  drain_.cancel();
  core_->stopping = true;
  core_->stopped = nullptr;
  const auto connections = core_->connections;
  for (const auto& connection : connections) {
    connection->abort();
  }
}

HttpServer::HttpServer(asio::io_context& context, HttpSettings settings, Handler handler)
    : impl_(std::make_shared<Impl>(context, std::move(settings), std::move(handler))) {}

HttpServer::~HttpServer() {
  impl_->abort();
}

runel::Result<void> HttpServer::open() {
  return impl_->open();
}
runel::Result<void> HttpServer::reloadCertificates() {
  return impl_->reload();
}
void HttpServer::stop(std::function<void()> done) {
  impl_->stop(std::move(done));
}
std::uint16_t HttpServer::port(std::size_t index) const {
  return impl_->port(index);
}
HttpState HttpServer::state() const {
  return impl_->state();
}

}  // namespace runelgw
