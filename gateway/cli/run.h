// SPDX-License-Identifier: Apache-2.0
// Runs one command of the gateway's program.
#ifndef RUNELGW_CLI_RUN_H_
#define RUNELGW_CLI_RUN_H_

namespace runelgw {

/// Exit statuses of the program.
enum ExitStatus {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,  ///< the command line or the settings are wrong: a repetition fails too
};

/// Runs the command line and returns the exit status. Writes to standard output and error.
[[nodiscard]] int runProgram(int argc, const char* const* argv);

}  // namespace runelgw

#endif  // RUNELGW_CLI_RUN_H_
