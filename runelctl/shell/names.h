// SPDX-License-Identifier: Apache-2.0
// Names of devices and groups for completion.
#ifndef RUNELCTL_SHELL_NAMES_H_
#define RUNELCTL_SHELL_NAMES_H_

#include <string>
#include <vector>

#include "commands/settings.h"

namespace runelctl {

/// The devices of the inventory, and \@NAME for those at the master. What cannot be read is
/// missing.
[[nodiscard]] std::vector<std::string> deviceNames(const Settings& settings);
/// The groups of the inventory.
[[nodiscard]] std::vector<std::string> groupNames(const Settings& settings);

}  // namespace runelctl

#endif  // RUNELCTL_SHELL_NAMES_H_
