// SPDX-License-Identifier: Apache-2.0
// Devices that the gateway selects.
#ifndef RUNELCTL_CLI_GATEWAY_TARGETS_H_
#define RUNELCTL_CLI_GATEWAY_TARGETS_H_

#include <string>
#include <vector>

#include <runel/result.h>

#include "commands/settings.h"
#include "gateway/gateway_client.h"

namespace runelctl {

/// What a command line selects. Empty for no device.
struct GatewaySelection {
  std::vector<std::string> queries;  ///< in the gateway's syntax: devices that match any of them
  std::vector<std::string> names;    ///< further devices
  std::vector<std::string> tags;     ///< KEY=VALUE, which devices of the queries must have
  std::vector<std::string> except;   ///< queries of devices that are left out
};

/// The names of the selected devices, each once, in the order of the selection. BLOCKS. Fails with
/// `Kind::local` for an invalid query, and for a name in a list of names that does not exist: the
/// others would be worked on without it.
[[nodiscard]] runel::Result<std::vector<std::string>> selectAtGateway(
    GatewayClient& gateway, const GatewaySelection& selection, runel::Milliseconds limit);

/// Connects @p settings with the gateway that they, RUNELCTL_GATEWAY or the inventory name, in this
/// order. Without one, or with an empty --gateway, removes it.
[[nodiscard]] runel::Result<void> chooseGateway(Settings& settings);

/// How long the gateway may take for a list.
[[nodiscard]] runel::Milliseconds listLimit(const Settings& settings);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_GATEWAY_TARGETS_H_
