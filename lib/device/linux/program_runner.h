// SPDX-License-Identifier: Apache-2.0
// Runs the programs of one connection.
#ifndef ZELL_DEVICE_LINUX_PROGRAM_RUNNER_H_
#define ZELL_DEVICE_LINUX_PROGRAM_RUNNER_H_

#include <string>
#include <vector>

#include <zell/slave_status.h>

#include "device/linux/child_process.h"

namespace zell {

/// Runs one program at a time and remembers the one in the background. Returns outcomes in the form
/// that replies carry.
class ProgramRunner {
 public:
  /// Runs @p argv. @p limit is the time limit in seconds: above 0 waits at most that long, 0 waits
  /// without limit, below 0 leaves the program in the background. Always forgets the previous
  /// background program.
  ResultStatus run(const std::vector<std::string>& argv, int limit);
  /// Stops the background program. Fails with ESRCH when no program is running.
  ResultStatus kill();
  /// Blocks until the background program has ended. Fails with ECHILD when there is no such
  /// program.
  ResultStatus wait();

  /// Standard output and error of the last program that ran in the foreground.
  [[nodiscard]] const std::string& output() const { return output_; }

 private:
  ResultStatus runAndWait(const std::vector<std::string>& argv, int limit);
  ResultStatus leaveRunning(const std::vector<std::string>& argv);

  std::string output_;
  ChildProcess background_;
};

}  // namespace zell

#endif  // ZELL_DEVICE_LINUX_PROGRAM_RUNNER_H_
