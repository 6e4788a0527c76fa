// SPDX-License-Identifier: Apache-2.0
// Runs a command line.
#ifndef RUNELCTL_CLI_RUN_H_
#define RUNELCTL_CLI_RUN_H_

#include <string>
#include <vector>

#include <runel/async_device.h>
#include <runel/loop.h>

#include "commands/settings.h"

namespace runelctl {

/// The state that command lines of a session share: the loop, the device, the options of the
/// session and the remote directory.
struct Session {
  runel::Loop& loop;
  runel::AsyncDevice* device = nullptr;
  Settings settings;  ///< apply to each command line that does not give other ones
};

/// Runs @p words, a command line without the program name. Returns the exit status.
[[nodiscard]] int runCommandLine(Session& session, const std::vector<std::string>& words);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_RUN_H_
