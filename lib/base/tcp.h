// SPDX-License-Identifier: Apache-2.0
// Distinguishes TCP sockets from others: some socket options apply to TCP only.
#ifndef ZELL_BASE_TCP_H_
#define ZELL_BASE_TCP_H_

#include <netinet/in.h>
#include <sys/socket.h>

namespace zell {

inline bool isTcp(int socket) {
  int protocol = 0;
  socklen_t length = sizeof protocol;
  return getsockopt(socket, SOL_SOCKET, SO_PROTOCOL, &protocol, &length) == 0 &&
         protocol == IPPROTO_TCP;
}

}  // namespace zell

#endif  // ZELL_BASE_TCP_H_
