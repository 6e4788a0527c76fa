// SPDX-License-Identifier: Apache-2.0
// Does what a command line asks for.
#ifndef ZELL_RUNELCTL_APP_RUN_H_
#define ZELL_RUNELCTL_APP_RUN_H_

#include <string>
#include <vector>

#include "client/device.h"
#include "client/loop.h"

namespace zell::ctl {

/// What outlives one command line of a session: the loop, the device in use and the folder there.
struct Session {
  Loop& loop;
  Device* device = nullptr;
  std::vector<std::string> before;  ///< options that each command line begins with
  std::string folder;
};

/// Runs @p words, a command line without the program's name. The exit status.
[[nodiscard]] int runCommandLine(Session& session, const std::vector<std::string>& words);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_APP_RUN_H_
