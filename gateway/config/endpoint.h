// SPDX-License-Identifier: Apache-2.0
// The text form of addresses to listen on.
#ifndef RUNELGW_CONFIG_ENDPOINT_H_
#define RUNELGW_CONFIG_ENDPOINT_H_

#include <optional>
#include <string>

#include "gateway/config/settings.h"

namespace runelgw {

/// Parses "ADDRESS:PORT"; an IPv6 address is in brackets. No value for anything else, host names
/// included.
[[nodiscard]] std::optional<Endpoint> parseEndpoint(const std::string& text);
/// The text that `parseEndpoint` reads.
[[nodiscard]] std::string textOf(const Endpoint& endpoint);
/// Whether @p endpoint is an IPv6 address.
[[nodiscard]] bool isIpv6(const Endpoint& endpoint);
/// Whether only this host can connect to @p endpoint.
[[nodiscard]] bool isLoopback(const Endpoint& endpoint);

}  // namespace runelgw

#endif  // RUNELGW_CONFIG_ENDPOINT_H_
