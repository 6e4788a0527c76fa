// SPDX-License-Identifier: Apache-2.0
// Builds the reply from the result of a task.
#include <cerrno>
#include <sstream>

#include <syslog.h>
#include <unistd.h>

#include <zell/file_tree_walker.h>
#include <zell/string_helpers.h>

#include "base/log.h"
#include "protocol/protocol.h"
#include "tasks/tasks.h"

namespace zell {
namespace {

// Assembles a text piece by piece. An ordinary stream swallows bad_alloc and keeps the part written
// so far, and that part would be sent as the whole text. This stream rethrows the exception.
class PiecedText : public std::ostringstream {
 public:
  PiecedText() { exceptions(std::ios_base::badbit); }
};

}  // namespace

Tasks::Reply Tasks::makeReply(std::string text) const {
  return std::make_unique<SlaveTask>(std::move(text), &proxy_);
}

// The boolean adds nothing to the proxy's status, which the reply contains.
Tasks::Reply Tasks::makeReply(bool /*done*/) const {
  return std::make_unique<SlaveTask>(std::string(), &proxy_);
}

Tasks::Reply Tasks::makeReply(const struct stat& st) const {
  PiecedText text;
  printStat(text, st);
  return makeReply(text.str());
}

Tasks::Reply Tasks::makeReply(const Args& list) const {
  PiecedText text;
  printStringVec(text, "StringVec", list);
  return makeReply(text.str());
}

Tasks::Reply Tasks::makeReply(const FileTreeWalker* walker) const {
  PiecedText text;
  if (walker != nullptr) {
    walker->print(text);
  }
  return makeReply(text.str());
}

// The reply to a request that cannot be run at all. The text is logged and sent. With a task name
// near the frame limit, the text exceeds the limit of a reply.
Tasks::Reply Tasks::refuse(const std::string& complaint, int error) {
  const std::string text = "(" + std::to_string(getpid()) + ") " + complaint;
  logPlain(LOG_ERR, "%s", text.c_str());
  if (text.size() > kMaxReplyText) {
    return std::make_unique<SlaveTask>(Args(), 0, "", SlaveStatus::failure,
                                       WatchProcessState_t::none, 1, EFBIG, 0);
  }
  return std::make_unique<SlaveTask>(Args(), 0, text, SlaveStatus::error, WatchProcessState_t::none,
                                     1, error, 0);
}

}  // namespace zell
