// SPDX-License-Identifier: Apache-2.0
#include "client/io/connector.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "client/core/link_event.h"
#include "client/io/local_peer.h"

namespace runel {
namespace {

constexpr std::size_t kMaxGreeting = 1024;
constexpr Milliseconds kMasterPause{20};
constexpr int kProbeIdle = 10;
constexpr int kProbeInterval = 10;
constexpr int kProbeCount = 5;

zell::UniqueFd newSocket(int family) {
  return zell::UniqueFd(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

template <typename Address>
int startConnect(int socket, const Address& address) {
  // The generic address type of the socket calls.
  return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

void setNumber(int socket, int level, int option, int value) {
  (void)setsockopt(socket, level, option, &value, sizeof value);  // fails on a Unix socket
}

}  // namespace

Error noMaster(const std::string& socket, int number) {
  return {Kind::link, Cause::noMaster, "no master at " + socket + ": " + systemText(number),
          number};
}

void setTaskOptions(int socket) {
  setNumber(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  setNumber(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  setNumber(socket, IPPROTO_TCP, TCP_KEEPIDLE, kProbeIdle);
  setNumber(socket, IPPROTO_TCP, TCP_KEEPINTVL, kProbeInterval);
  setNumber(socket, IPPROTO_TCP, TCP_KEEPCNT, kProbeCount);
}

Connector::Connector(Loop& loop, const Address& address, const DeviceOptions& options, Done done)
    : loop_(loop),
      address_(address),
      masterSocket_(options.masterSocket()),
      dialer_(DeviceDialer::of(options)),
      done_(std::move(done)) {
  limit_ = loop_.after(options.connectTimeout(), [this] {
    fail({Kind::timeout, Cause::connectTimeout, "connect timeout", ETIMEDOUT});
  });
  start_ = loop_.after(Milliseconds(0), [this] { start(); });
}

Connector::~Connector() {
  loop_.cancel(start_);
  loop_.cancel(limit_);
  if (socket_.valid()) {
    loop_.forget(socket_.get());
  }
}

void Connector::start() {
  if (address_.isBehindMaster() && dialer_) {
    dial();
  } else if (address_.isBehindMaster()) {
    connectMaster();
  } else {
    resolveName();
  }
}

// The resolver may answer after the attempt is over.
void Connector::resolveName() {
  loop_.resolve(address_.host(),
                [this, alive = std::weak_ptr<bool>(alive_)](const Result<in_addr>& host) {
                  if (alive.expired() || !done_) {
                    return;
                  }
                  if (host) {
                    connectTcp(*host);
                  } else {
                    fail(host.error());
                  }
                });
}

void Connector::connectTcp(in_addr host) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(address_.port());
  peer.sin_addr = host;
  socket_ = newSocket(AF_INET);
  if (!socket_.valid() || (startConnect(socket_.get(), peer) != 0 && errno != EINPROGRESS)) {
    failConnect(errno);
    return;
  }
  watchConnect();
}

void Connector::connectMaster() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (masterSocket_.size() >= sizeof address.sun_path) {
    failConnect(ENAMETOOLONG);
    return;
  }
  std::memcpy(address.sun_path, masterSocket_.c_str(), masterSocket_.size() + 1);
  socket_ = newSocket(AF_UNIX);
  const bool made = socket_.valid() && startConnect(socket_.get(), address) == 0;
  if (!made && errno == EAGAIN) {
    // The backlog of the master is full: retry after a pause.
    start_ = loop_.after(kMasterPause, [this] { connectMaster(); });
  } else if (made) {
    watchConnect();
  } else {
    fail(noMaster(masterSocket_, errno));
  }
}

void Connector::dial() {
  Dialer::Dialed dialed = dialer_->dial();
  socket_ = std::move(dialed.socket);
  line_ = std::move(dialed.line);
  if (socket_.valid()) {
    sendGreeting();
  } else {
    failConnect(errno);
  }
}

void Connector::watchConnect() {
  if (!loop_.watch(socket_.get(), EPOLLOUT, [this](std::uint32_t) { connected(); })) {
    failConnect(errno);
  }
}

void Connector::connected() {
  int number = 0;
  socklen_t size = sizeof number;
  if (getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &number, &size) != 0 || number != 0) {
    failConnect(number != 0 ? number : errno);
  } else if (address_.isBehindMaster() && !peerIsUs(socket_.get())) {
    fail({Kind::link, Cause::refusedByMaster,
          masterSocket_ + ": the master belongs to another user", EPERM});
  } else if (address_.isBehindMaster()) {
    sendGreeting();
  } else {
    setTaskOptions(socket_.get());
    succeed();
  }
}

// One line selects the device. The master answers "ok" or an error. After "ok", the connection
// carries the frames of the device.
void Connector::sendGreeting() {
  const std::string line = "attach " + address_.through() + "\n";
  if (::send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) !=
      static_cast<ssize_t>(line.size())) {
    failConnect(errno);
    return;
  }
  loop_.forget(socket_.get());
  if (!loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { readGreeting(); })) {
    failConnect(errno);
  }
}

// Byte by byte: the bytes after the line belong to the device.
void Connector::readGreeting() {
  char byte = 0;
  ssize_t got = recv(socket_.get(), &byte, 1, MSG_DONTWAIT);
  while (got == 1 && byte != '\n' && greeting_.size() < kMaxGreeting) {
    greeting_ += byte;
    got = recv(socket_.get(), &byte, 1, MSG_DONTWAIT);
  }
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got == 1 && greeting_ == "ok") {
    succeed();
  } else if (const auto error = dialer_ ? parseErrorLine(greeting_) : std::nullopt) {
    fail(*error);
  } else {
    fail({Kind::link, Cause::refusedByMaster,
          greeting_.empty() ? "the master closed the connection" : greeting_});
  }
}

void Connector::succeed() {
  loop_.forget(socket_.get());
  loop_.cancel(limit_);
  const Done done = std::move(done_);
  done(std::move(socket_), std::nullopt);
}

void Connector::failConnect(int number) {
  fail({Kind::link, Cause::connect, systemText(number), number});
}

void Connector::fail(Error error) {
  if (socket_.valid()) {
    loop_.forget(socket_.get());
    socket_.reset();
  }
  loop_.cancel(limit_);
  const Done done = std::move(done_);
  done(zell::UniqueFd(), std::move(error));
}

}  // namespace runel
