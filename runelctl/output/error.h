// SPDX-License-Identifier: Apache-2.0
// An error as runelctl reports it, with advice, and the exit status for it.
#ifndef RUNELCTL_OUTPUT_ERROR_H_
#define RUNELCTL_OUTPUT_ERROR_H_

#include <optional>
#include <string>

#include <runel/error.h>
#include <runel/request.h>

namespace runelctl {

/// The kinds of failure.
enum class Fault {
  unreachable,  ///< connecting failed
  lost,         ///< the connection was lost before the answer
  protocol,     ///< the peer violated the protocol
  timedOut,     ///< timeout
  task,         ///< the device answered that the task failed
  program,      ///< a program on the device ran and failed
  timeLimit,    ///< a program on the device exceeded its time limit
  local,        ///< error with a local file or directory
  cancelled,    ///< cancelled locally, by a signal
};

/// One failure. `what` and `hint` may contain any bytes of names: escape them before showing them
/// on a terminal.
struct Error {
  Error(Fault itsFault, std::string itsText, std::string itsHint = "", int itsNumber = 0);
  /// An error of the library, with the advice for its cause.
  Error(const runel::Error& error);  // NOLINT(google-explicit-constructor)

  Fault fault;
  std::string what;
  std::string hint;      ///< what to do about it, if known
  int number;            ///< errno value, 0 for none
  bool transient;        ///< a retry may succeed
  bool unknown = false;  ///< it is unknown whether a task ran that is not safe to repeat

  /// Adds to the advice.
  void advise(const std::string& text);

  /// "link", "device", "program" or "local".
  [[nodiscard]] const char* where() const;
};

/// A local failure with the file @p name.
[[nodiscard]] Error localError(const std::string& name, int number);

/// What the device does after this program has left, and that it serves no client meanwhile.
[[nodiscard]] std::string continuesText(const runel::LongTask& task);
/// How long the device may continue @p task, in seconds. Nothing without a limit.
[[nodiscard]] std::optional<long> secondsLeft(const runel::LongTask& task);

/// The exit status for @p error.
[[nodiscard]] int exitStatusOf(const Error& error);
/// The exit status for @p reply, as a shell would report it; see the manual.
[[nodiscard]] int exitStatusOf(const runel::Reply& reply);

constexpr int kExitTaskFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitTimeLimit = 124;
constexpr int kExitCannotRun = 126;
constexpr int kExitNotThere = 127;
constexpr int kExitSignalBase = 128;
constexpr int kExitNoConnection = 255;

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_ERROR_H_
