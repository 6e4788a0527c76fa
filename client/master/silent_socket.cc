// SPDX-License-Identifier: Apache-2.0
#include "client/master/silent_socket.h"

#include <cerrno>
#include <cstdint>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>

#include <runel/error.h>

namespace runel {
namespace {

constexpr std::size_t kDrained = 65536;

int errorOf(int socket) {
  int number = 0;
  socklen_t size = sizeof number;
  (void)getsockopt(socket, SOL_SOCKET, SO_ERROR, &number, &size);  // 0 if that fails
  return number;
}

}  // namespace

SilentSocket::SilentSocket(Loop& loop, zell::UniqueFd socket, bool drains,
                           std::function<void(const std::string& why)> ended)
    : loop_(loop), socket_(std::move(socket)), ended_(std::move(ended)) {
  const std::uint32_t events = EPOLLRDHUP | (drains ? std::uint32_t{EPOLLIN} : 0U);
  if (!loop_.watch(socket_.get(), events, [this](std::uint32_t) { ready(); })) {
    const std::string why = systemText(errno);
    failed_ = loop_.after(Milliseconds(0), [this, why] { end(why); });
  }
}

SilentSocket::~SilentSocket() {
  loop_.cancel(failed_);
  if (socket_.valid()) {
    loop_.forget(socket_.get());
  }
}

zell::UniqueFd SilentSocket::take() {
  loop_.cancel(failed_);
  loop_.forget(socket_.get());
  return std::move(socket_);
}

// Without EPOLLIN only the end or an error of the connection makes it ready.
void SilentSocket::ready() {
  char bytes[kDrained];
  const ssize_t got = recv(socket_.get(), bytes, sizeof bytes, MSG_DONTWAIT | MSG_TRUNC);
  dropped_ = dropped_ || got > 0;
  if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) {
    return;
  }
  const int number = got < 0 ? errno : errorOf(socket_.get());
  end(number == 0 ? "the device closed the connection" : systemText(number));
}

void SilentSocket::end(const std::string& why) {
  loop_.forget(socket_.get());
  socket_.reset();
  const auto ended = std::move(ended_);
  ended_ = nullptr;
  ended(why);
}

}  // namespace runel
