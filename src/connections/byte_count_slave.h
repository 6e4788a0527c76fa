// SPDX-License-Identifier: Apache-2.0
// Serves a socket on which the master sends tasks.
#ifndef ZELL_CONNECTIONS_BYTE_COUNT_SLAVE_H_
#define ZELL_CONNECTIONS_BYTE_COUNT_SLAVE_H_

#include <memory>
#include <string>
#include <vector>

#include <zell/byte_count_protocol.h>
#include <zell/slave_task.h>

#include "connections/runel_connection.h"

struct stat;

namespace zell {

class FileTreeWalker;

/// Runs the tasks of a socket one after the other, and replies to each before it reads the next. A
/// slow task blocks the whole daemon.
class ByteCountSlave : public RunelConnection {
 public:
  /// Serves @p socket; its proxy becomes the one that drives the LEDs.
  explicit ByteCountSlave(int socket);
  ~ByteCountSlave() override;

  bool inputPending() override;
  void handleMessage(std::string& packet) override;
  /// True for good after "restart" or "reboot".
  bool stopRequested() override;

  /// Runs @p task. Returns the reply, which the caller owns, or null when no reply is sent.
  SlaveTask* dispatchTask(const SlaveTask& task);

 private:
  using Args = std::vector<std::string>;

  // A task's name, the number of arguments besides the name, and the function that runs it.
  struct TaskRow {
    const char* name;
    std::size_t arguments;
    SlaveTask* (ByteCountSlave::*run)(const SlaveTask& task);
  };
  static const TaskRow kTasks[];
  static const TaskRow* findTask(const std::string& name);

  void runMessage(std::string& message);
  void send(const SlaveTask& reply);

  // tasks/replies.cc: a reply carries the proxy's status of the last operation.
  SlaveTask* makeReply(std::string text);
  SlaveTask* makeReply(bool done);
  SlaveTask* makeReply(const struct stat& st);
  SlaveTask* makeReply(const Args& list);
  SlaveTask* makeReply(const FileTreeWalker* walker);
  static SlaveTask* refuse(const std::string& complaint, int error);

  // tasks/file_tasks.cc
  SlaveTask* runAccess(const SlaveTask& task);
  SlaveTask* runAppend(const SlaveTask& task);
  SlaveTask* runChmodx(const SlaveTask& task);
  SlaveTask* runFileExists(const SlaveTask& task);
  SlaveTask* runFreeBlocks(const SlaveTask& task);
  SlaveTask* runLstat(const SlaveTask& task);
  SlaveTask* runRead(const SlaveTask& task);
  SlaveTask* runReadDir(const SlaveTask& task);
  SlaveTask* runRealPath(const SlaveTask& task);
  SlaveTask* runRename(const SlaveTask& task);
  SlaveTask* runStat(const SlaveTask& task);
  SlaveTask* runUnlink(const SlaveTask& task);
  SlaveTask* runWalkTree(const SlaveTask& task);
  SlaveTask* runWrite(const SlaveTask& task);

  // tasks/process_tasks.cc
  SlaveTask* runExec(const SlaveTask& task);
  SlaveTask* runKill(const SlaveTask& task);
  SlaveTask* runProcessRunning(const SlaveTask& task);
  SlaveTask* runWait(const SlaveTask& task);

  // tasks/device_tasks.cc
  SlaveTask* runBlinkLeds(const SlaveTask& task);
  SlaveTask* runChangeLeds(const SlaveTask& task);
  SlaveTask* runDeviceType(const SlaveTask& task);
  SlaveTask* runHostId(const SlaveTask& task);
  SlaveTask* runReboot(const SlaveTask& task);
  SlaveTask* runRestart(const SlaveTask& task);
  SlaveTask* runUpdateUmState(const SlaveTask& task);

  std::unique_ptr<ByteCountProtocol> codec_;
  bool stopRequested_ = false;
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_BYTE_COUNT_SLAVE_H_
