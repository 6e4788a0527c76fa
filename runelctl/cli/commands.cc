// SPDX-License-Identifier: Apache-2.0
// All commands, in the order of the help.
#include "cli/local_command.h"
#include "commands/command.h"

namespace runelctl {

Commands deviceCommands() {
  Commands commands;
  addTransferCommands(commands);
  addFileCommands(commands);
  addProgramCommands(commands);
  addJobCommands(commands);
  addDeviceCommands(commands);
  addRestartCommands(commands);
  addTaskCommands(commands);
  return commands;
}

LocalCommands localCommands() {
  LocalCommands commands;
  addShellCommand(commands);
  addMasterCommands(commands);
  addAgentCommand(commands);
  addProbeCommand(commands);
  addInventoryCommand(commands);
  addCompletionCommand(commands);
  addCompleteCommand(commands);
  return commands;
}

}  // namespace runelctl
