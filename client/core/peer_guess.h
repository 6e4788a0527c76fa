// SPDX-License-Identifier: Apache-2.0
// Guesses the protocol of an unexpected peer from its first bytes.
#ifndef RUNEL_CORE_PEER_GUESS_H_
#define RUNEL_CORE_PEER_GUESS_H_

#include <string>
#include <string_view>

namespace runel {

/// Returns "the peer is not runeld: ..." with a guess. Returns an empty text if @p first, the first
/// received bytes, may begin a frame of the task protocol.
[[nodiscard]] std::string guessPeer(std::string_view first);

}  // namespace runel

#endif  // RUNEL_CORE_PEER_GUESS_H_
