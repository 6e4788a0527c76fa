// SPDX-License-Identifier: Apache-2.0
// Lets the process outlive its standard output.
#ifndef RUNELCTL_FLEET_OUTPUT_GUARD_H_
#define RUNELCTL_FLEET_OUTPUT_GUARD_H_

#include <functional>

#include <runel/loop.h>

namespace runelctl {

/// While it exists, a write to a closed pipe fails and does not end the process: first, the
/// programs on the devices have to be ended.
class OutputGuard {
 public:
  /// Calls @p closed once if the reader of standard output closes it, also while nothing is
  /// written.
  OutputGuard(runel::Loop& loop, std::function<void()> closed);
  ~OutputGuard();
  OutputGuard(const OutputGuard&) = delete;
  OutputGuard& operator=(const OutputGuard&) = delete;

 private:
  runel::Loop& loop_;
  void (*before_)(int);  // the action of SIGPIPE
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_OUTPUT_GUARD_H_
