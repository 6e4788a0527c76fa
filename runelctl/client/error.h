// SPDX-License-Identifier: Apache-2.0
// What went wrong, where, and whether it is worth another try.
#ifndef ZELL_RUNELCTL_CLIENT_ERROR_H_
#define ZELL_RUNELCTL_CLIENT_ERROR_H_

#include <string>

namespace zell::ctl {

/// The kinds of failure that a caller may want to tell apart.
enum class Fault {
  unreachable,  ///< no connection could be made
  lost,         ///< the connection ended before the answer
  protocol,     ///< what came is no answer of the protocol
  timedOut,     ///< no answer in time
  task,         ///< the device answered that the task failed
  program,      ///< a program on the device ran and failed
  local,        ///< a file or folder of this host
  cancelled,    ///< given up here, by a signal or because another device failed
};

/// One failure. `what` and `hint` are plain text as it came: names in it may hold any byte, so
/// whoever shows it to people escapes it.
struct Error {
  Fault fault = Fault::task;
  std::string what;
  std::string hint;  ///< what to do about it, where that is known
  int number = 0;    ///< the errno value behind it, 0 for none

  /// "link", "device", "program" or "local".
  [[nodiscard]] const char* where() const;
  /// True when the same request may well succeed later.
  [[nodiscard]] bool retry() const;
};

/// The system's text for the errno value @p number.
[[nodiscard]] std::string systemText(int number);

/// A failure of this host's own, about the file @p name.
[[nodiscard]] Error localError(const std::string& name, int number);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_ERROR_H_
