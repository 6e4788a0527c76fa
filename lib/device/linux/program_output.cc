// SPDX-License-Identifier: Apache-2.0
#include "device/linux/program_output.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include "base/log.h"

namespace zell {
namespace {

constexpr std::size_t kPiece = std::size_t{64} * 1024;  // the capacity of a pipe
// A text of this length probably becomes very long. It gets the address space for the maximum (no
// memory yet), which avoids copies when it grows.
constexpr std::size_t kLongText = std::size_t{256} * 1024;

}  // namespace

int ProgramOutput::open(UniqueFd& writing) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return errno;
  }
  reading_.reset(ends[0]);
  writing.reset(ends[1]);
  return fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0 ? 0 : errno;
}

void ProgramOutput::takeSome() {
  (void)take(kPiece);
}

void ProgramOutput::takeRest() {
  int waiting = 0;
  if (!reading_.valid()) {
    return;
  }
  if (ioctl(reading_.get(), FIONREAD, &waiting) != 0) {
    logLine(LOG_ERR, "exec: cannot read output, %m");
    return;
  }
  auto left = static_cast<std::size_t>(waiting);
  while (left > 0) {
    const std::size_t taken = take(std::min(left, kPiece));
    if (taken == 0) {
      if (reading_.valid()) {  // EAGAIN, although the pipe is not empty
        logLine(LOG_ERR, "exec: cannot read output, %m");
      }
      return;
    }
    left -= taken;
  }
}

std::size_t ProgramOutput::take(std::size_t most) {
  char piece[kPiece];
  ssize_t length = 0;
  do {
    length = read(reading_.get(), piece, most);
  } while (length < 0 && errno == EINTR);
  if (length < 0 && errno != EAGAIN) {
    logLine(LOG_ERR, "exec: cannot read output, %m");
    reading_.reset();
  } else if (length == 0) {
    reading_.reset();
  }
  if (length <= 0) {
    return 0;
  }
  keep(piece, static_cast<std::size_t>(length));
  return static_cast<std::size_t>(length);
}

void ProgramOutput::keep(const char* piece, std::size_t length) {
  const std::size_t kept = std::min(length, kMaxProgramOutput - text_.size());
  if (text_.size() >= kLongText) {
    text_.reserve(kMaxProgramOutput);
  }
  text_.append(piece, kept);
  if (kept < length && !cut_) {
    cut_ = true;
    logLine(LOG_WARNING, "exec: output cut at %d bytes", static_cast<int>(kMaxProgramOutput));
  }
}

}  // namespace zell
