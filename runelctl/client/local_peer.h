// SPDX-License-Identifier: Apache-2.0
// Who is at the other end of a socket of this host.
#ifndef ZELL_RUNELCTL_CLIENT_LOCAL_PEER_H_
#define ZELL_RUNELCTL_CLIENT_LOCAL_PEER_H_

namespace zell::ctl {

/// True when the connected Unix @p socket leads to a process of this user, or of root, who could
/// have that anyway.
[[nodiscard]] bool peerIsUs(int socket);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_LOCAL_PEER_H_
