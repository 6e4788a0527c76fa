// SPDX-License-Identifier: Apache-2.0
// An error: what failed, where, and whether a retry may succeed.
#ifndef RUNEL_CORE_ERROR_H_
#define RUNEL_CORE_ERROR_H_

#include <string>

namespace runel {

/// The kinds of failure.
enum class Fault {
  unreachable,  ///< connecting failed
  lost,         ///< the connection was lost before the answer
  protocol,     ///< the peer violated the protocol
  timedOut,     ///< timeout
  task,         ///< the device answered that the task failed
  program,      ///< a program on the device ran and failed
  local,        ///< error with a local file or directory
  cancelled,    ///< cancelled locally, by a signal
};

/// One failure. `what` and `hint` may contain any bytes of names: escape them before showing them
/// on a terminal.
struct Error {
  Fault fault = Fault::task;
  std::string what;
  std::string hint;  ///< what to do about it, if known
  int number = 0;    ///< errno value, 0 for none

  /// "link", "device", "program" or "local".
  [[nodiscard]] const char* where() const;
  /// True for a transient failure.
  [[nodiscard]] bool retry() const;
};

/// The system's text for the errno value @p number.
[[nodiscard]] std::string systemText(int number);

/// A local failure with the file @p name.
[[nodiscard]] Error localError(const std::string& name, int number);

}  // namespace runel

#endif  // RUNEL_CORE_ERROR_H_
