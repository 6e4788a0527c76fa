// SPDX-License-Identifier: Apache-2.0
// Resolves host names.
#ifndef RUNEL_IO_RESOLVER_H_
#define RUNEL_IO_RESOLVER_H_

#include <cstdint>
#include <string>

#include <netinet/in.h>

namespace runel {

/// Resolves @p host to an IPv4 address. Blocks on the name service for a host name and caches the
/// result. Returns false with the system's error text in @p why.
[[nodiscard]] bool resolve(const std::string& host, std::uint16_t port, sockaddr_in& address,
                           std::string& why);

}  // namespace runel

#endif  // RUNEL_IO_RESOLVER_H_
