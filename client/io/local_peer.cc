// SPDX-License-Identifier: Apache-2.0
#include "client/io/local_peer.h"

#include <sys/socket.h>
#include <unistd.h>

namespace runel {

bool peerIsUs(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         (peer.uid == geteuid() || peer.uid == 0);
}

}  // namespace runel
