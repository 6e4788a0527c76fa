// SPDX-License-Identifier: Apache-2.0
#include "control/nonblocking_writer.h"

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace runelctl {
namespace {

constexpr std::size_t kMostKept = 4194304;
// A ready pipe accepts this many bytes without blocking (PIPE_BUF), even with other writers.
constexpr std::size_t kWriteSize = 4096;
constexpr runel::Milliseconds kPause{50};

}  // namespace

NonBlockingWriter::~NonBlockingWriter() {
  loop_.cancel(timer_);
  while (!waiting_.empty() && writeSome()) {
  }
}

void NonBlockingWriter::write(std::string_view lines) {
  if (waiting_.size() + lines.size() > kMostKept) {
    ++leftOut_;
    return;
  }
  waiting_ += lines;
  if (timer_.id == 0) {
    flush();
  }
}

void NonBlockingWriter::flush() {
  timer_ = runel::Timer();
  while (!waiting_.empty() && writeSome()) {
  }
  if (broken_) {
    waiting_.clear();
  }
  if (waiting_.empty() && leftOut_ > 0) {
    waiting_ =
        "(" + std::to_string(leftOut_) + " lines dropped: the output was not read in time)\n";
    leftOut_ = 0;
  }
  if (!waiting_.empty()) {
    timer_ = loop_.after(kPause, [this] { flush(); });
  }
}

// Returns false when nothing can be written now.
bool NonBlockingWriter::writeSome() {
  pollfd ready{fd_, POLLOUT, 0};
  if (broken_ || poll(&ready, 1, 0) != 1) {
    return false;
  }
  const ssize_t taken = ::write(fd_, waiting_.data(), std::min(waiting_.size(), kWriteSize));
  if (taken > 0) {
    waiting_.erase(0, static_cast<std::size_t>(taken));
    return true;
  }
  broken_ = taken < 0 && errno != EAGAIN && errno != EINTR;
  return false;
}

}  // namespace runelctl
