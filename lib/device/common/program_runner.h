// SPDX-License-Identifier: Apache-2.0
// Runs the programs of one connection. The system's part of the library implements the class.
#ifndef ZELL_DEVICE_COMMON_PROGRAM_RUNNER_H_
#define ZELL_DEVICE_COMMON_PROGRAM_RUNNER_H_

#include <memory>
#include <string>
#include <vector>

#include <zell/slave_status.h>

namespace zell {

/// Runs one program at a time and remembers the one in the background. Returns outcomes in the form
/// that replies carry.
class ProgramRunner {
 public:
  /// What the system's part keeps for each runner, complete only there.
  struct State;

  ProgramRunner();
  ~ProgramRunner();
  ProgramRunner(const ProgramRunner&) = delete;
  ProgramRunner& operator=(const ProgramRunner&) = delete;

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
  [[nodiscard]] const std::string& output() const;

  [[nodiscard]] State& state() { return *state_; }

 private:
  std::unique_ptr<State> state_;
};

/// Reaps the programs that have ended and that no runner remembers any more. Never blocks.
void reapForgottenPrograms() noexcept;

}  // namespace zell

#endif  // ZELL_DEVICE_COMMON_PROGRAM_RUNNER_H_
