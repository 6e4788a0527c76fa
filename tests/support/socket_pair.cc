// SPDX-License-Identifier: Apache-2.0
#include "support/socket_pair.h"

#include <cstdlib>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace zell::test {
namespace {

// Without sockets the tests are meaningless.
void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

UniqueFd tcpSocket() {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  require(fd.valid());
  return fd;
}

sockaddr* general(sockaddr_in& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

}  // namespace

SocketPair::SocketPair(UniqueFd near, UniqueFd far)
    : near_(std::move(near)), far_(std::move(far)) {}

SocketPair SocketPair::local() {
  int fds[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0);
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

SocketPair SocketPair::tcp(int receiveBuffer) {
  const UniqueFd listener = tcpSocket();
  sockaddr_in address{};
  socklen_t length = sizeof address;
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  require(bind(listener.get(), general(address), length) == 0);
  require(listen(listener.get(), 1) == 0);
  require(getsockname(listener.get(), general(address), &length) == 0);
  UniqueFd far = tcpSocket();
  if (receiveBuffer != 0) {  // before connect(), which fixes the window scale
    require(setsockopt(far.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer) ==
            0);
  }
  require(connect(far.get(), general(address), length) == 0);
  UniqueFd near(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  require(near.valid());
  return {std::move(near), std::move(far)};
}

std::string SocketPair::received() const {
  std::string all;
  char part[4096];
  ssize_t count = 0;
  while ((count = recv(far(), part, sizeof part, MSG_DONTWAIT)) > 0) {
    all.append(part, static_cast<std::size_t>(count));
  }
  return all;
}

std::string SocketPair::receive(std::size_t count) const {
  std::string all(count, '\0');
  std::size_t got = 0;
  ssize_t more = 0;
  while (got < count && (more = recv(far(), all.data() + got, count - got, 0)) > 0) {
    got += static_cast<std::size_t>(more);
  }
  all.resize(got);
  return all;
}

bool SocketPair::ended() const {
  char byte = 0;
  return recv(far(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

void SocketPair::resetFar() {
  const linger now{1, 0};
  require(setsockopt(far(), SOL_SOCKET, SO_LINGER, &now, sizeof now) == 0);
  closeFar();
}

}  // namespace zell::test
