// SPDX-License-Identifier: Apache-2.0
// What the device does for each task.
#ifndef ZELL_TASKS_TASKS_H_
#define ZELL_TASKS_TASKS_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <zell/slave_task.h>

struct stat;

namespace zell {

class FileTreeWalker;
class SlaveProxy;

/// Runs the tasks of one connection. A task that takes long blocks the whole daemon.
class Tasks {
 public:
  /// A reply; null when none is to be sent.
  using Reply = std::unique_ptr<SlaveTask>;
  /// Sends a reply before the task has ended.
  using Send = std::function<void(const SlaveTask& reply)>;

  /// @p proxy runs the operations and outlives this object.
  Tasks(SlaveProxy& proxy, Send send);

  /// Runs @p task, a request. Throws what the proxy throws.
  [[nodiscard]] Reply run(const SlaveTask& task);
  /// True after "restart" or "reboot", for good.
  [[nodiscard]] bool stopRequested() const { return stopRequested_; }

 private:
  using Args = std::vector<std::string>;
  using Function = Reply (Tasks::*)(const SlaveTask& task);

  struct Row;
  static const Row kRows[];

  // replies.cc: a reply carries the proxy's status of the operation that it ran last.
  [[nodiscard]] Reply makeReply(std::string text) const;
  [[nodiscard]] Reply makeReply(bool done) const;
  [[nodiscard]] Reply makeReply(const struct stat& st) const;
  [[nodiscard]] Reply makeReply(const Args& list) const;
  [[nodiscard]] Reply makeReply(const FileTreeWalker* walker) const;
  [[nodiscard]] static Reply refuse(const std::string& complaint, int error);

  // file_tasks.cc
  Reply runAccess(const SlaveTask& task);
  Reply runAppend(const SlaveTask& task);
  Reply runChmodx(const SlaveTask& task);
  Reply runFileExists(const SlaveTask& task);
  Reply runFreeBlocks(const SlaveTask& task);
  Reply runLstat(const SlaveTask& task);
  Reply runRead(const SlaveTask& task);
  Reply runReadDir(const SlaveTask& task);
  Reply runRealPath(const SlaveTask& task);
  Reply runRename(const SlaveTask& task);
  Reply runStat(const SlaveTask& task);
  Reply runUnlink(const SlaveTask& task);
  Reply runWalkTree(const SlaveTask& task);
  Reply runWrite(const SlaveTask& task);

  // process_tasks.cc
  Reply runExec(const SlaveTask& task);
  Reply runKill(const SlaveTask& task);
  Reply runProcessRunning(const SlaveTask& task);
  Reply runWait(const SlaveTask& task);

  // device_tasks.cc
  Reply runBlinkLeds(const SlaveTask& task);
  Reply runChangeLeds(const SlaveTask& task);
  Reply runDeviceType(const SlaveTask& task);
  Reply runHostId(const SlaveTask& task);
  Reply runReboot(const SlaveTask& task);
  Reply runRestart(const SlaveTask& task);
  Reply runUpdateUmState(const SlaveTask& task);

  SlaveProxy& proxy_;
  const Send send_;
  bool stopRequested_ = false;
};

}  // namespace zell

#endif  // ZELL_TASKS_TASKS_H_
