// SPDX-License-Identifier: Apache-2.0
#include "client/master/listener.h"

#include <cerrno>
#include <utility>

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <runel/error.h>

#include "client/io/connector.h"

namespace runel {
namespace {

// After a restart of the master, hundreds of devices connect at the same time.
constexpr int kDeviceBacklog = 4096;
constexpr int kDevicesAtOnce = 64;
constexpr Milliseconds kRest{1000};

}  // namespace

Listener::~Listener() {
  loop_.cancel(pause_);
  if (socket_.valid()) {
    loop_.forget(socket_.get());
  }
}

Result<void> Listener::open(const std::string& host, std::uint16_t port) {
  const std::string where = host + ":" + std::to_string(port);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    return Error(Kind::local, Cause::other, where + ": not an IPv4 address");
  }
  socket_.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  (void)setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);  // bind reports errors
  // The generic address type of the socket calls.
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  if (bind(socket_.get(), generic, sizeof address) != 0 ||
      listen(socket_.get(), kDeviceBacklog) != 0 || !watch()) {
    return Error::local(where, errno);
  }
  return {};
}

std::uint16_t Listener::port() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);  // the generic address type
  const bool known = socket_.valid() && getsockname(socket_.get(), generic, &size) == 0;
  return known ? ntohs(address.sin_port) : 0;
}

bool Listener::watch() {
  return loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { accept(); });
}

void Listener::accept() {
  for (int i = 0; i < kDevicesAtOnce; ++i) {
    sockaddr_in from{};
    socklen_t size = sizeof from;
    auto* generic = reinterpret_cast<sockaddr*>(&from);  // the generic address type
    zell::UniqueFd connected(accept4(socket_.get(), generic, &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!connected.valid()) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        rest(errno);
      }
      return;
    }
    setTaskOptions(connected.get());
    accepted_(std::move(connected), from);
  }
}

// Stop watching for a while: pending connections that cannot be accepted would keep the loop busy.
void Listener::rest(int number) {
  problem_("cannot accept connections: " + systemText(number));
  loop_.forget(socket_.get());
  pause_ = loop_.after(kRest, [this] {
    pause_ = Timer();
    if (!watch()) {
      rest(errno);
    }
  });
}

}  // namespace runel
