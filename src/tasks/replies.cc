// SPDX-License-Identifier: Apache-2.0
// Builds the reply from the result of a task.
#include <cerrno>
#include <sstream>

#include <syslog.h>
#include <unistd.h>

#include <zell/file_tree_walker.h>
#include <zell/string_helpers.h>

#include "base/log.h"
#include "connections/byte_count_slave.h"

namespace zell {
namespace {

// Assembles a text piece by piece. An ordinary stream swallows bad_alloc and keeps the part written
// so far, and that part would be sent as the whole text. This stream rethrows the exception.
class PiecedText : public std::ostringstream {
 public:
  PiecedText() { exceptions(std::ios_base::badbit); }
};

}  // namespace

SlaveTask* ByteCountSlave::makeReply(std::string text) {
  return new SlaveTask(std::move(text), proxy_.get());
}

// The boolean adds nothing to the proxy's status, which the reply contains.
SlaveTask* ByteCountSlave::makeReply(bool /*done*/) {
  return new SlaveTask(std::string(), proxy_.get());
}

SlaveTask* ByteCountSlave::makeReply(const struct stat& st) {
  PiecedText text;
  printStat(text, st);
  return makeReply(text.str());
}

SlaveTask* ByteCountSlave::makeReply(const Args& list) {
  PiecedText text;
  printStringVec(text, "StringVec", list);
  return makeReply(text.str());
}

SlaveTask* ByteCountSlave::makeReply(const FileTreeWalker* walker) {
  PiecedText text;
  if (walker != nullptr) {
    walker->print(text);
  }
  return makeReply(text.str());
}

// The reply to a request that cannot be run at all. The text is logged and sent. With a task name
// near the frame limit, the text exceeds the limit of a reply.
SlaveTask* ByteCountSlave::refuse(const std::string& complaint, int error) {
  const std::string text = "(" + std::to_string(getpid()) + ") " + complaint;
  logPlain(LOG_ERR, "%s", text.c_str());
  if (text.size() > kMaxReplyText) {
    return new SlaveTask({}, 0, "", SlaveStatus::failure, WatchProcessState_t::none, 1, EFBIG, 0);
  }
  return new SlaveTask({}, 0, text, SlaveStatus::error, WatchProcessState_t::none, 1, error, 0);
}

}  // namespace zell
