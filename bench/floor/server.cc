// SPDX-License-Identifier: Apache-2.0
#include "server.h"

#include <cstdio>
#include <cstring>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zell::bench {
namespace {

constexpr std::size_t kPacket = 4096;
constexpr int kTimeoutMicroseconds = 100000;
constexpr int kBacklog = 1024;

sockaddr_in addressOf(in_addr_t host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(host);
  return address;
}

void sendWithoutDelay(int fd) {
  const int on = 1;
  (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

int FloorServer::run(int port) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  (void)setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = addressOf(INADDR_ANY, port);
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener_, kBacklog) != 0) {
    std::perror("floor: listen");
    return 1;
  }
  for (;;) {
    onePass();
  }
}

void FloorServer::onePass() {
  fillSets();
  timeval timeout{0, kTimeoutMicroseconds};
  const int ready = select(highest_ + 1, &readable_, nullptr, &exceptional_, &timeout);
  if (ready > 0) {
    if (FD_ISSET(listener_, &readable_)) {
      acceptOne();
    }
    for (std::size_t i = 0; i < connections_.size(); ++i) {
      const int fd = connections_[i];
      if (FD_ISSET(fd, &readable_) && !readOne(fd)) {
        (void)close(fd);
        forget(fd);
        connections_.erase(connections_.begin() + static_cast<std::ptrdiff_t>(i));
        break;
      }
    }
  }
  if (wanted_ > 0) {
    connectMaster();
  }
}

void FloorServer::fillSets() {
  FD_ZERO(&readable_);
  FD_ZERO(&exceptional_);
  FD_SET(listener_, &readable_);
  highest_ = listener_;
  for (const int fd : connections_) {
    watch(fd);
  }
}

void FloorServer::watch(int fd) {
  FD_SET(fd, &readable_);
  FD_SET(fd, &exceptional_);
  if (fd > highest_) {
    highest_ = fd;
  }
}

void FloorServer::acceptOne() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0 && fd < FD_SETSIZE) {
    sendWithoutDelay(fd);
    connections_.push_back(fd);
  }
}

// False when the peer has disconnected.
bool FloorServer::readOne(int fd) {
  char packet[kPacket];
  std::memset(packet, 0, sizeof packet);
  const ssize_t got = recv(fd, packet, sizeof packet, 0);
  if (got <= 0) {
    return false;
  }
  receive(fd, {packet, static_cast<std::size_t>(got)});
  return true;
}

void FloorServer::connectMaster() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = addressOf(INADDR_LOOPBACK, masterPort_);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    (void)close(fd);
    return;
  }
  --wanted_;
  sendWithoutDelay(fd);
  connections_.push_back(fd);
  connected(fd);
}

}  // namespace zell::bench
