// SPDX-License-Identifier: Apache-2.0
#include "wire.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <openssl/ssl.h>

#include "base/unique_fd.h"

namespace runel::bench {
namespace {

constexpr int kLongestWait = 60000;  // milliseconds: only against a hang
constexpr std::size_t kPart = 262144;

struct FreeContext {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct FreeSession {
  void operator()(SSL* session) const { SSL_free(session); }
};

// The certificate is not verified: this measures.
SSL_CTX* sharedContext() {
  static const std::unique_ptr<SSL_CTX, FreeContext> context(SSL_CTX_new(TLS_client_method()));
  return context.get();
}

}  // namespace

void fail(const std::string& text) {
  std::cerr << "bench_gateway: " << text << "\n";
  std::exit(2);
}

struct Wire::Data {
  zell::UniqueFd socket;
  std::unique_ptr<SSL, FreeSession> session;
  std::string part = std::string(kPart, 0);

  void await(short events) const {
    pollfd one{socket.get(), events, 0};
    if (poll(&one, 1, kLongestWait) != 1) {
      fail("the gateway does not answer");
    }
  }

  // What to wait for before the next try.
  [[nodiscard]] short wanted(int result) const {
    switch (SSL_get_error(session.get(), result)) {
      case SSL_ERROR_WANT_READ:
        return POLLIN;
      case SSL_ERROR_WANT_WRITE:
        return POLLOUT;
      default:
        return 0;
    }
  }

  void shakeHands() {
    session.reset(SSL_new(sharedContext()));
    (void)SSL_set_fd(session.get(), socket.get());
    for (int done = SSL_connect(session.get()); done != 1; done = SSL_connect(session.get())) {
      const short events = wanted(done);
      if (events == 0) {
        fail("the gateway does not speak TLS");
      }
      await(events);
    }
  }

  // The number of bytes, 0 if it would wait.
  std::size_t write(std::string_view bytes) const {
    if (session) {
      const int wrote = SSL_write(session.get(), bytes.data(), static_cast<int>(bytes.size()));
      if (wrote <= 0 && wanted(wrote) == 0) {
        fail("the gateway has closed the connection");
      }
      return wrote > 0 ? static_cast<std::size_t>(wrote) : 0;
    }
    const ssize_t wrote = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (wrote < 0 && errno != EAGAIN) {
      fail(std::string("send: ") + std::strerror(errno));
    }
    return wrote > 0 ? static_cast<std::size_t>(wrote) : 0;
  }

  // The number of bytes in `part`, 0 if none has arrived.
  std::size_t read() {
    if (session) {
      const int got = SSL_read(session.get(), part.data(), static_cast<int>(part.size()));
      if (got <= 0 && wanted(got) == 0) {
        fail("the gateway has closed the connection");
      }
      return got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    const ssize_t got = recv(socket.get(), part.data(), part.size(), 0);
    if (got == 0 || (got < 0 && errno != EAGAIN)) {
      fail("the gateway has closed the connection");
    }
    return got > 0 ? static_cast<std::size_t>(got) : 0;
  }
};

Wire::Wire(const sockaddr_in& address, bool tls) : data_(std::make_unique<Data>()) {
  data_->socket = zell::UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto* const to = reinterpret_cast<const sockaddr*>(&address);
  const int fd = data_->socket.get();
  const int on = 1;
  if (fd < 0 || ::connect(fd, to, sizeof address) != 0 ||
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0 ||
      fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
    fail(std::string("connect: ") + std::strerror(errno));
  }
  if (tls) {
    data_->shakeHands();
  }
}

Wire::~Wire() = default;

void Wire::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t wrote = data_->write(bytes);
    bytes.remove_prefix(wrote);
    if (wrote == 0) {
      data_->await(POLLOUT);
    }
  }
}

void Wire::receive(std::string& bytes) {
  for (std::size_t got = data_->read(); got > 0; got = data_->read()) {
    bytes.append(data_->part, 0, got);
    if (!data_->session && got < kPart) {
      return;  // one more call would find nothing
    }
  }
}

void Wire::await(std::string& bytes) {
  data_->await(POLLIN);
  receive(bytes);
}

int Wire::descriptor() const {
  return data_->socket.get();
}

}  // namespace runel::bench
