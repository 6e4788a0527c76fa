// SPDX-License-Identifier: Apache-2.0
// Runs a command line.
#ifndef RUNELCTL_CLI_RUN_H_
#define RUNELCTL_CLI_RUN_H_

#include <string>
#include <vector>

#include <runel/async_device.h>
#include <runel/loop.h>

namespace runelctl {

/// The state that command lines of a session share: the loop, the device and the remote directory.
struct Session {
  runel::Loop& loop;
  runel::AsyncDevice* device = nullptr;
  std::vector<std::string> before;  ///< options that are prepended to each command line
  std::string directory;
  int programLimit = 0;  ///< the default of each command line, in seconds; 0 for none
};

/// Runs @p words, a command line without the program name. Returns the exit status.
[[nodiscard]] int runCommandLine(Session& session, const std::vector<std::string>& words);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_RUN_H_
