// SPDX-License-Identifier: Apache-2.0
// The programs of one connection.
#ifndef ZELL_LINUX_PROGRAM_RUNNER_H_
#define ZELL_LINUX_PROGRAM_RUNNER_H_

#include <string>
#include <vector>

#include <zell/slave_status.h>

#include "zell/linux/child_process.h"

namespace zell {

/// Runs one program at a time and remembers the one it left in the background. What it answers is
/// the outcome as replies carry it.
class ProgramRunner {
 public:
  /// Runs @p argv: @p limit is in seconds, above 0 the longest time, 0 no limit, below 0 the
  /// program is left in the background. Forgets the background program of before in any case.
  ResultStatus run(const std::vector<std::string>& argv, int limit);
  /// Stops the background program. ESRCH when none is running.
  ResultStatus kill();
  /// Blocks until the background program has ended. ECHILD when there is none.
  ResultStatus wait();

  /// Standard output and error of the last program that was not left in the background.
  [[nodiscard]] const std::string& output() const { return output_; }

 private:
  ResultStatus runAndWait(const std::vector<std::string>& argv, int limit);
  ResultStatus leaveRunning(const std::vector<std::string>& argv);

  std::string output_;
  ChildProcess background_;
};

}  // namespace zell

#endif  // ZELL_LINUX_PROGRAM_RUNNER_H_
