// SPDX-License-Identifier: Apache-2.0
// The table of tasks by name.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "connections/byte_count_slave.h"

namespace zell {

// In alphabetical order for a binary search. "exec" requires no argument here: the proxy rejects a
// missing program.
const ByteCountSlave::TaskRow ByteCountSlave::kTasks[] = {
    {"access", 2, &ByteCountSlave::runAccess},
    {"append", 2, &ByteCountSlave::runAppend},
    {"blinkleds", 1, &ByteCountSlave::runBlinkLeds},
    {"changeleds", 2, &ByteCountSlave::runChangeLeds},
    {"chmodx", 1, &ByteCountSlave::runChmodx},
    {"devicetype", 0, &ByteCountSlave::runDeviceType},
    {"exec", 0, &ByteCountSlave::runExec},
    {"fileexists", 1, &ByteCountSlave::runFileExists},
    {"freeblocks", 1, &ByteCountSlave::runFreeBlocks},
    {"hostid", 0, &ByteCountSlave::runHostId},
    {"kill", 0, &ByteCountSlave::runKill},
    {"lstat", 1, &ByteCountSlave::runLstat},
    {"processrunning", 1, &ByteCountSlave::runProcessRunning},
    {"read", 1, &ByteCountSlave::runRead},
    {"readdir", 1, &ByteCountSlave::runReadDir},
    {"realpath", 1, &ByteCountSlave::runRealPath},
    {"reboot", 0, &ByteCountSlave::runReboot},
    {"rename", 2, &ByteCountSlave::runRename},
    {"restart", 0, &ByteCountSlave::runRestart},
    {"stat", 1, &ByteCountSlave::runStat},
    {"unlink", 1, &ByteCountSlave::runUnlink},
    {"updateumstate", 2, &ByteCountSlave::runUpdateUmState},
    {"wait", 0, &ByteCountSlave::runWait},
    {"walktree", 1, &ByteCountSlave::runWalkTree},
    {"write", 2, &ByteCountSlave::runWrite},
};

const ByteCountSlave::TaskRow* ByteCountSlave::findTask(const std::string& name) {
  const auto* const row = std::lower_bound(
      std::begin(kTasks), std::end(kTasks), name,
      [](const TaskRow& task, const std::string& wanted) { return task.name < wanted; });
  return row != std::end(kTasks) && row->name == name ? row : nullptr;
}

SlaveTask* ByteCountSlave::dispatchTask(const SlaveTask& task) {
  const Args& args = task.args();
  if (args.empty()) {
    return refuse("too few arguments: ", EINVAL);
  }
  const TaskRow* const row = findTask(args[0]);
  if (row == nullptr) {
    return refuse("unknown cmd: " + args[0], EPROTO);
  }
  if (args.size() - 1 < row->arguments) {
    return refuse("too few arguments: " + args[0], EINVAL);
  }
  return (this->*row->run)(task);
}

}  // namespace zell
