// SPDX-License-Identifier: Apache-2.0
// Checks the user of the peer of a local socket.
#ifndef ZELL_CLIENT_CORE_LOCAL_PEER_H_
#define ZELL_CLIENT_CORE_LOCAL_PEER_H_

namespace zell::ctl {

/// True if the peer of the connected Unix @p socket is a process of this user or of root.
[[nodiscard]] bool peerIsUs(int socket);

}  // namespace zell::ctl

#endif  // ZELL_CLIENT_CORE_LOCAL_PEER_H_
