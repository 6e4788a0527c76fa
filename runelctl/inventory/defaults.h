// SPDX-License-Identifier: Apache-2.0
// Values of options that an inventory sets for devices and groups.
#ifndef RUNELCTL_INVENTORY_DEFAULTS_H_
#define RUNELCTL_INVENTORY_DEFAULTS_H_

#include <optional>
#include <string>

namespace runelctl {

/// The timeouts of one device, in seconds.
struct Timeouts {
  std::optional<int> program;  ///< limit for a program
  std::optional<double> connect;
  std::optional<double> io;
  std::optional<double> deadline;  ///< 0 for none

  /// Takes from @p other what is not set.
  void complete(const Timeouts& other) {
    program = program ? program : other.program;
    connect = connect ? connect : other.connect;
    io = io ? io : other.io;
    deadline = deadline ? deadline : other.deadline;
  }
  [[nodiscard]] bool empty() const { return !program && !connect && !io && !deadline; }
};

/// The values for a whole run.
struct RunDefaults {
  std::optional<int> jobs;
  std::optional<int> maxFail;
  std::optional<std::string> wave;
};

struct Defaults {
  Timeouts timeouts;
  RunDefaults run;
  std::string gateway{};  ///< its address; only of all devices
};

}  // namespace runelctl

#endif  // RUNELCTL_INVENTORY_DEFAULTS_H_
