// SPDX-License-Identifier: Apache-2.0
// Tasks that read and change files. The status that the reply takes from the proxy tells whether
// the operation succeeded. A record or number is formatted even after a failure.
#include <sstream>
#include <utility>

#include <sys/stat.h>

#include <zell/slave_proxy.h>

#include "tasks/tasks.h"

namespace zell {
namespace {

// Parses the number at the front of @p text; 0 when there is no number.
unsigned toUnsigned(const std::string& text) {
  std::istringstream in(text);
  unsigned value = 0;
  in >> value;
  return value;
}

}  // namespace

Tasks::Reply Tasks::runAccess(const SlaveTask& task) {
  return makeReply(proxy_.access(task.args()[1], toUnsigned(task.args()[2])));
}

Tasks::Reply Tasks::runAppend(const SlaveTask& task) {
  return makeReply(proxy_.appendFile(task.args()[1], task.args()[2]));
}

Tasks::Reply Tasks::runChmodx(const SlaveTask& task) {
  return makeReply(proxy_.chmodx(task.args()[1]));
}

Tasks::Reply Tasks::runFileExists(const SlaveTask& task) {
  return makeReply(proxy_.fileExists(task.args()[1]));
}

Tasks::Reply Tasks::runFreeBlocks(const SlaveTask& task) {
  std::uint64_t blocks = 0;
  (void)proxy_.freeBlocks(task.args()[1], blocks);
  return makeReply(std::to_string(blocks));
}

Tasks::Reply Tasks::runLstat(const SlaveTask& task) {
  struct stat st {};
  (void)proxy_.lstat(task.args()[1], st);
  return makeReply(st);
}

Tasks::Reply Tasks::runRead(const SlaveTask& task) {
  std::string content;
  (void)proxy_.readFile(task.args()[1], content);
  return makeReply(std::move(content));
}

Tasks::Reply Tasks::runReadDir(const SlaveTask& task) {
  Args entries;
  (void)proxy_.readDir(task.args()[1], entries);
  return makeReply(entries);
}

Tasks::Reply Tasks::runRealPath(const SlaveTask& task) {
  return makeReply(proxy_.realPath(task.args()[1]));
}

Tasks::Reply Tasks::runRename(const SlaveTask& task) {
  return makeReply(proxy_.rename(task.args()[1], task.args()[2]));
}

Tasks::Reply Tasks::runStat(const SlaveTask& task) {
  struct stat st {};
  (void)proxy_.stat(task.args()[1], st);
  return makeReply(st);
}

Tasks::Reply Tasks::runUnlink(const SlaveTask& task) {
  return makeReply(proxy_.unlink(task.args()[1]));
}

Tasks::Reply Tasks::runWalkTree(const SlaveTask& task) {
  return makeReply(proxy_.walkTree(task.args()[1]));
}

Tasks::Reply Tasks::runWrite(const SlaveTask& task) {
  return makeReply(proxy_.writeFile(task.args()[1], task.args()[2]));
}

}  // namespace zell
