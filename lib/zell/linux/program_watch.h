// SPDX-License-Identifier: Apache-2.0
// Waiting for the end of a program.
#ifndef ZELL_LINUX_PROGRAM_WATCH_H_
#define ZELL_LINUX_PROGRAM_WATCH_H_

#include <chrono>

#include "base/unique_fd.h"

namespace zell {

class ChildProcess;
class ProgramOutput;

/// Waits for a program and takes its output meanwhile.
class ProgramWatch {
 public:
  /// The monotonic clock itself and not the seam's: programs run in real time.
  using Clock = std::chrono::steady_clock;

  /// Borrows both; @p output is null for a program whose output nobody reads.
  ProgramWatch(const ChildProcess& program, ProgramOutput* output);

  /// Waits until the program has ended (true; it stays to be reaped) or @p deadline has passed.
  /// Signals do not end the wait.
  [[nodiscard]] bool endsBefore(Clock::time_point deadline);
  /// Stops the program: SIGTERM, and SIGKILL 2 s later if it still lives. It has ended then.
  void stop();

 private:
  bool lookFor(int timeout);

  const ChildProcess& program_;
  ProgramOutput* output_;
  UniqueFd end_;  // readable when the program has ended; none where the kernel has no such thing
};

}  // namespace zell

#endif  // ZELL_LINUX_PROGRAM_WATCH_H_
