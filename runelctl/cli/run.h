// SPDX-License-Identifier: Apache-2.0
// Runs a command line.
#ifndef ZELL_RUNELCTL_CLI_RUN_H_
#define ZELL_RUNELCTL_CLI_RUN_H_

#include <string>
#include <vector>

#include "client/core/device.h"
#include "client/core/loop.h"

namespace zell::ctl {

/// The state that command lines of a session share: the loop, the device and the remote directory.
struct Session {
  Loop& loop;
  Device* device = nullptr;
  std::vector<std::string> before;  ///< options that are prepended to each command line
  std::string directory;
};

/// Runs @p words, a command line without the program name. Returns the exit status.
[[nodiscard]] int runCommandLine(Session& session, const std::vector<std::string>& words);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLI_RUN_H_
