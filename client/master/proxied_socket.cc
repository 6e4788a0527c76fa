// SPDX-License-Identifier: Apache-2.0
#include "client/master/proxied_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace runel {
namespace {

// A proxy sends the header when it connects.
constexpr Milliseconds kLongestWait{10000};
constexpr std::size_t kHeaderRead = 4096;

}  // namespace

ProxiedSocket::ProxiedSocket(Loop& loop, zell::UniqueFd socket, Arrived arrived)
    : loop_(loop), socket_(std::move(socket)), arrived_(std::move(arrived)) {
  const bool watched = loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { ready(); });
  late_ =
      loop_.after(watched ? kLongestWait : Milliseconds(0), [this] { finish(std::move(socket_)); });
}

ProxiedSocket::~ProxiedSocket() {
  loop_.cancel(late_);
  if (socket_.valid()) {
    loop_.forget(socket_.get());
  }
}

void ProxiedSocket::ready() {
  char bytes[kHeaderRead];
  const std::size_t most = std::min(header_.missing(), sizeof bytes);
  const ssize_t got = recv(socket_.get(), bytes, most, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    loop_.forget(socket_.get());
    socket_.reset();
    finish(zell::UniqueFd());
    return;
  }
  header_.add(std::string_view(bytes, static_cast<std::size_t>(got)));
  if (header_.state() != ProxyHeader::State::incomplete) {
    finish(std::move(socket_));
  }
}

void ProxiedSocket::finish(zell::UniqueFd socket) {
  if (socket.valid()) {
    loop_.forget(socket.get());
  }
  const auto arrived = std::move(arrived_);
  arrived_ = nullptr;
  arrived(std::move(socket), header_);
}

}  // namespace runel
