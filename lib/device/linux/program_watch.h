// SPDX-License-Identifier: Apache-2.0
// Waits for the end of a program.
#ifndef ZELL_DEVICE_LINUX_PROGRAM_WATCH_H_
#define ZELL_DEVICE_LINUX_PROGRAM_WATCH_H_

#include <chrono>

#include "base/unique_fd.h"

namespace zell {

class ChildProcess;
class ProgramOutput;

/// Waits for a program and reads its output meanwhile.
class ProgramWatch {
 public:
  /// The real monotonic clock, not the one that tests replace: programs run in real time.
  using Clock = std::chrono::steady_clock;

  /// Borrows both. @p output is null for a program whose output is not collected.
  ProgramWatch(const ChildProcess& program, ProgramOutput* output);

  /// Waits until the program has ended or @p deadline has passed. Returns true when it has ended;
  /// it is not reaped yet. Signals do not end the wait.
  [[nodiscard]] bool endsBefore(Clock::time_point deadline);
  /// Stops the program: sends SIGTERM, then SIGKILL after 2 s. The program has ended on return.
  void stop();

 private:
  bool lookFor(int timeout);

  const ChildProcess& program_;
  ProgramOutput* output_;
  UniqueFd end_;  // a pidfd, readable when the program has ended; invalid without pidfd support
};

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_PROGRAM_WATCH_H_
