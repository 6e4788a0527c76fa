// SPDX-License-Identifier: Apache-2.0
// Finds the function of a task.
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <string_view>

#include "protocol/task_table.h"
#include "tasks/tasks.h"

namespace zell {

struct Tasks::Row {
  std::string_view name;
  Function run;
};

// One row for each row of kTasks, in the same order.
constexpr Tasks::Row Tasks::kRows[] = {
    {"access", &Tasks::runAccess},
    {"append", &Tasks::runAppend},
    {"blinkleds", &Tasks::runBlinkLeds},
    {"changeleds", &Tasks::runChangeLeds},
    {"chmodx", &Tasks::runChmodx},
    {"devicetype", &Tasks::runDeviceType},
    {"exec", &Tasks::runExec},
    {"fileexists", &Tasks::runFileExists},
    {"freeblocks", &Tasks::runFreeBlocks},
    {"hostid", &Tasks::runHostId},
    {"kill", &Tasks::runKill},
    {"lstat", &Tasks::runLstat},
    {"processrunning", &Tasks::runProcessRunning},
    {"read", &Tasks::runRead},
    {"readdir", &Tasks::runReadDir},
    {"realpath", &Tasks::runRealPath},
    {"reboot", &Tasks::runReboot},
    {"rename", &Tasks::runRename},
    {"restart", &Tasks::runRestart},
    {"stat", &Tasks::runStat},
    {"unlink", &Tasks::runUnlink},
    {"updateumstate", &Tasks::runUpdateUmState},
    {"wait", &Tasks::runWait},
    {"walktree", &Tasks::runWalkTree},
    {"write", &Tasks::runWrite},
};

Tasks::Tasks(SlaveProxy& proxy, Send send) : proxy_(proxy), send_(std::move(send)) {
  constexpr auto kMatches = [] {
    for (std::size_t i = 0; i < std::size(kTasks); ++i) {
      if (kRows[i].name != kTasks[i].name) {
        return false;
      }
    }
    return std::size(kRows) == std::size(kTasks);
  };
  static_assert(kMatches(), "a task without a function, or in another place than in kTasks");
}

Tasks::Reply Tasks::run(const SlaveTask& task) {
  const Args& args = task.args();
  if (args.empty()) {
    return refuse("too few arguments: ", EINVAL);
  }
  const TaskTraits* const traits = findTask(args[0]);
  if (traits == nullptr) {
    return refuse("unknown cmd: " + args[0], EPROTO);
  }
  if (args.size() - 1 < traits->arguments) {
    return refuse("too few arguments: " + args[0], EINVAL);
  }
  return (this->*kRows[traits - kTasks].run)(task);
}

}  // namespace zell
