// SPDX-License-Identifier: Apache-2.0
// What the gateway tells its supervisor, and the limit that it gets from it.
#ifndef RUNELGW_APP_SUPERVISOR_H_
#define RUNELGW_APP_SUPERVISOR_H_

#include <cstdint>
#include <string>

namespace runelgw {

/// Sends @p state ("READY=1", "STOPPING=1"...) in one datagram to the socket @p address: a path,
/// or '@' and an abstract name. That is what systemd expects at NOTIFY_SOCKET. Returns false, with
/// errno, when it was not sent.
[[nodiscard]] bool notifySupervisor(const std::string& address, const std::string& state);

/// Raises the limit of open descriptors as far as it is allowed. Returns the limit then.
[[nodiscard]] std::uint64_t raiseDescriptorLimit();

/// How many devices the descriptors allow, besides @p clients and what the process itself has open.
[[nodiscard]] std::uint64_t devicesFor(std::uint64_t descriptors, std::uint64_t clients);

}  // namespace runelgw

#endif  // RUNELGW_APP_SUPERVISOR_H_
