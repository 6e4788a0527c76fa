// SPDX-License-Identifier: Apache-2.0
// What a probe has learned of one device, and the parsers of the files that it reads there.
#ifndef RUNELCTL_PROBE_FACTS_H_
#define RUNELCTL_PROBE_FACTS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "output/error.h"

namespace runelctl {

/// The free space of one file system.
struct FreeSpace {
  std::string path;                    ///< as given
  std::optional<std::uint64_t> bytes;  ///< for unprivileged users
  std::string why{};                   ///< the error without `bytes`
};

/// A fact that the device does not tell has no value. Times are in seconds.
struct Facts {
  std::string device{};            ///< its name
  std::optional<Error> failure{};  ///< of a device that did not answer; it has no other facts
  bool undecided = false;          ///< the failure is this host's and tells nothing of the device
  std::optional<double> roundTrip{};
  std::optional<double> uptime{};      ///< of the device's system
  std::optional<double> restartAge{};  ///< since the start of the daemon
  std::vector<FreeSpace> free{};
  std::optional<std::string> version{};
  double time = 0;  ///< since 1970, at the end of the probe

  [[nodiscard]] bool up() const { return !failure; }
};

///@{
/// Each returns nothing for malformed text, which may be any bytes.

/// The uptime in @p text, the content of /proc/uptime.
[[nodiscard]] std::optional<double> parseUptime(std::string_view text);
/// The start of a process in seconds after the boot. @p text is the content of its /proc/PID/stat.
[[nodiscard]] std::optional<double> parseProcessStart(std::string_view text);
///@}

/// The age of a process that was started @p start seconds after the boot, which was @p uptime
/// seconds ago. Nothing for a negative age: in some containers, the two numbers belong to different
/// systems.
[[nodiscard]] std::optional<double> ageOf(std::optional<double> start,
                                          std::optional<double> uptime);

/// The median of @p times, which has at least one.
[[nodiscard]] double medianOf(std::vector<double> times);

}  // namespace runelctl

#endif  // RUNELCTL_PROBE_FACTS_H_
