// SPDX-License-Identifier: Apache-2.0
// Tasks that run programs. "kill" and "wait" act on the background program of this connection's
// proxy, which no other connection can reach.
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
