// SPDX-License-Identifier: Apache-2.0
// All commands there are, in the order in which help shows them.
#include "app/local_command.h"
#include "commands/command.h"

namespace zell::ctl {

Commands deviceCommands() {
  Commands commands;
  addFileCommands(commands);
  addProgramCommands(commands);
  addDeviceCommands(commands);
  addRestartCommands(commands);
  addTaskCommands(commands);
  return commands;
}

LocalCommands localCommands() {
  return {};
}

}  // namespace zell::ctl
