// SPDX-License-Identifier: Apache-2.0
// Tasks that run programs. "kill" and "wait" act on the background program of this connection's
// proxy, which no other connection can reach.
#include <zell/slave_proxy.h>

#include "tasks/tasks.h"

namespace zell {

Tasks::Reply Tasks::runExec(const SlaveTask& task) {
  const Args program(task.args().begin() + 1, task.args().end());
  (void)proxy_.exec(program, task.execParam());  // the outcome is in the status
  return makeReply(proxy_.output());
}

Tasks::Reply Tasks::runKill(const SlaveTask& /*task*/) {
  return makeReply(proxy_.kill());
}

Tasks::Reply Tasks::runProcessRunning(const SlaveTask& task) {
  return makeReply(proxy_.processRunning(task.args()[1]));
}

Tasks::Reply Tasks::runWait(const SlaveTask& /*task*/) {
  return makeReply(proxy_.wait());
}

}  // namespace zell
