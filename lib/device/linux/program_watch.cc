// SPDX-License-Identifier: Apache-2.0
#include "device/linux/program_watch.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "device/linux/child_process.h"
#include "device/linux/program_output.h"

namespace zell {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kGrace{2};    // between SIGTERM and SIGKILL
constexpr milliseconds kCheckInterval{10};   // interval where the kernel has no pidfd
constexpr milliseconds kLongestWait{60000};  // keeps the milliseconds in the range of int

// The time until @p deadline in whole milliseconds, rounded up, at most @p most.
int timeoutUntil(ProgramWatch::Clock::time_point deadline, milliseconds most) {
  const auto left = deadline - ProgramWatch::Clock::now();
  const auto rounded = std::chrono::ceil<milliseconds>(std::min<decltype(left)>(left, most));
  return static_cast<int>(std::max(rounded, milliseconds(0)).count());
}

// @p time is below a second, so that it fits a long of 32 bits.
void pause(milliseconds time) {
  const timespec wanted{0, static_cast<long>(std::chrono::nanoseconds(time).count())};
  (void)nanosleep(&wanted, nullptr);  // a signal may interrupt it: the caller checks again anyway
}

}  // namespace

ProgramWatch::ProgramWatch(const ChildProcess& program, ProgramOutput* output)
    : program_(program),
      output_(output),
      end_(static_cast<int>(syscall(SYS_pidfd_open, program.pid(), 0))) {}

bool ProgramWatch::endsBefore(Clock::time_point deadline) {
  const milliseconds most = end_.valid() ? kLongestWait : kCheckInterval;
  for (;;) {
    if (lookFor(timeoutUntil(deadline, most))) {
      return true;
    }
    if (Clock::now() >= deadline) {
      return false;
    }
  }
}

// Waits up to @p timeout milliseconds for an event. Returns whether the program has ended.
bool ProgramWatch::lookFor(int timeout) {
  pollfd set[] = {{end_.get(), POLLIN, 0}, {output_ == nullptr ? -1 : output_->fd(), POLLIN, 0}};
  const bool failed = poll(set, 2, timeout) < 0 && errno != EINTR;
  if (failed) {
    pause(kCheckInterval);
  }
  if (set[0].revents != 0 || ((failed || !end_.valid()) && program_.hasEnded())) {
    return true;
  }
  if (set[1].revents != 0 || (failed && set[1].fd >= 0)) {
    output_->takeSome();
  }
  return false;
}

void ProgramWatch::stop() {
  program_.signal(SIGTERM);
  if (!endsBefore(Clock::now() + kGrace)) {
    program_.signal(SIGKILL);
    (void)endsBefore(Clock::time_point::max());
  }
}

}  // namespace zell
