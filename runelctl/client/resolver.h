// SPDX-License-Identifier: Apache-2.0
// Host names and addresses.
#ifndef ZELL_RUNELCTL_CLIENT_RESOLVER_H_
#define ZELL_RUNELCTL_CLIENT_RESOLVER_H_

#include <cstdint>
#include <string>

#include <netinet/in.h>

namespace zell::ctl {

/// Finds the IPv4 address of @p host. Asks the name service, and waits for it, for anything but a
/// dotted address; answers are remembered. False with the system's text in @p why.
[[nodiscard]] bool resolve(const std::string& host, std::uint16_t port, sockaddr_in& address,
                           std::string& why);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_RESOLVER_H_
