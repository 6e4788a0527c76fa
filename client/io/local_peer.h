// SPDX-License-Identifier: Apache-2.0
// Checks the user of the peer of a local socket.
#ifndef RUNEL_IO_LOCAL_PEER_H_
#define RUNEL_IO_LOCAL_PEER_H_

namespace runel {

/// True if the peer of the connected Unix @p socket is a process of this user or of root.
[[nodiscard]] bool peerIsUs(int socket);

}  // namespace runel

#endif  // RUNEL_IO_LOCAL_PEER_H_
