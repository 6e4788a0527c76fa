// SPDX-License-Identifier: Apache-2.0
#include "support/loopback.h"

#include <cstdio>
#include <cstdlib>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace zell::test {

UniqueFd listenOnLoopback(std::uint16_t& port, int flags) {
  UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);  // the generic type of the socket calls
  if (bind(listener.get(), generic, size) != 0 || listen(listener.get(), 5) != 0 ||
      getsockname(listener.get(), generic, &size) != 0) {
    std::perror("listenOnLoopback");
    std::abort();
  }
  port = ntohs(address.sin_port);
  return listener;
}

}  // namespace zell::test
