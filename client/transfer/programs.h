// SPDX-License-Identifier: Apache-2.0
// Programs of the device that work on many files in one run.
#ifndef RUNEL_TRANSFER_PROGRAMS_H_
#define RUNEL_TRANSFER_PROGRAMS_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "client/transfer/work.h"

namespace runel {

/// Runs one program on many names, in as few runs as the argument list limit allows. "chmod 0644
/// --" with two thousand paths needs a few requests.
struct ProgramRuns {
  std::vector<std::string> words;  ///< the program and the arguments before the names
  std::vector<std::string> names;
};

/// The result of one run. `names` are its arguments.
struct ProgramRun {
  const std::string& program;
  const std::vector<std::string>& names;
  const Reply& reply;
};

/// A pipeline source that executes @p runs one after the other. @p handle returns false to stop
/// after the requests in flight.
[[nodiscard]] Pipeline::Source programSource(std::vector<ProgramRuns> runs,
                                             std::function<bool(const ProgramRun& run)> handle);

/// Executes @p runs, then calls @p next. Warns "@p what: reason" about failures, once for each
/// reason.
void runPrograms(TransferWork& work, std::vector<ProgramRuns> runs, const std::string& what,
                 std::function<void()> next);

/// Names by the argument that a program needs for them, such as a mode for chmod.
using NamesByArgument = std::map<std::string, std::vector<std::string>>;
/// A run "@p words ARGUMENT -- NAME..." for each argument.
[[nodiscard]] std::vector<ProgramRuns> runsOf(const NamesByArgument& groups,
                                              const std::vector<std::string>& words);

/// Why a program on the device failed, in one line: the first line of its output, if any.
[[nodiscard]] std::string programTrouble(const std::string& program, const Reply& reply);

/// Format a mode for chmod(1) and a time for `touch -d`.
[[nodiscard]] std::string octalMode(std::uint32_t mode);
[[nodiscard]] std::string touchTime(const Timestamp& time, bool fractions);

}  // namespace runel

#endif  // RUNEL_TRANSFER_PROGRAMS_H_
