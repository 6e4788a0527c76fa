// SPDX-License-Identifier: Apache-2.0
// What a peer is that speaks another protocol, by its first bytes.
#ifndef ZELL_RUNELCTL_CLIENT_PEER_GUESS_H_
#define ZELL_RUNELCTL_CLIENT_PEER_GUESS_H_

#include <string>
#include <string_view>

namespace zell::ctl {

/// "the peer is not runeld: ..." with a guess; empty when @p first, the first bytes that it sent,
/// begins like the task protocol.
[[nodiscard]] std::string guessPeer(std::string_view first);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_PEER_GUESS_H_
