// SPDX-License-Identifier: Apache-2.0
// Tasks that run programs. The proxy remembers the program that it left running: "kill" and "wait"
// act on that one, and no other connection can.
#include "connections/byte_count_slave.h"

namespace zell {

SlaveTask* ByteCountSlave::runExec(const SlaveTask& task) {
  const Args program(task.args().begin() + 1, task.args().end());
  (void)proxy_->exec(program, task.execParam());  // the outcome is in the status
  return makeReply(proxy_->output());
}

SlaveTask* ByteCountSlave::runKill(const SlaveTask& /*task*/) {
  return makeReply(proxy_->kill());
}

SlaveTask* ByteCountSlave::runProcessRunning(const SlaveTask& task) {
  return makeReply(proxy_->processRunning(task.args()[1]));
}

SlaveTask* ByteCountSlave::runWait(const SlaveTask& /*task*/) {
  return makeReply(proxy_->wait());
}

}  // namespace zell
