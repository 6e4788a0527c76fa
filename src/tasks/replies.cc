// SPDX-License-Identifier: Apache-2.0
// How the result of a task becomes its reply.
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

// A text put together piece by piece. Left to itself, a stream that gets no memory keeps what it
// has so far, and a part of the text would be sent as the whole; this one passes the exception on.
class PiecedText : public std::ostringstream {
 public:
  PiecedText() { exceptions(std::ios_base::badbit); }
};

}  // namespace

SlaveTask* ByteCountSlave::makeReply(std::string text) {
  return new SlaveTask(std::move(text), proxy_.get());
}

// The boolean says no more than the proxy's status, which the reply takes.
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

// The answer to a request that cannot be run at all; it is logged as it is sent. A name that a
// frame just holds makes it longer than a reply may be.
SlaveTask* ByteCountSlave::refuse(const std::string& complaint, int error) {
  const std::string text = "(" + std::to_string(getpid()) + ") " + complaint;
  logPlain(LOG_ERR, "%s", text.c_str());
  if (text.size() > kMaxReplyText) {
    return new SlaveTask({}, 0, "", SlaveStatus::failure, WatchProcessState_t::none, 1, EFBIG, 0);
  }
  return new SlaveTask({}, 0, text, SlaveStatus::error, WatchProcessState_t::none, 1, error, 0);
}

}  // namespace zell
