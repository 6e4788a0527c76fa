// SPDX-License-Identifier: Apache-2.0
// Compares the facts of a device with thresholds, and formats the result as monitoring plugins do.
#ifndef RUNELCTL_PROBE_ASSESSMENT_H_
#define RUNELCTL_PROBE_ASSESSMENT_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "probe/facts.h"

namespace runelctl {

/// The numbers are the exit statuses of a monitoring plugin.
enum class ProbeState { ok = 0, warning = 1, critical = 2, unknown = 3 };

/// "OK", "WARNING", "CRITICAL" or "UNKNOWN".
[[nodiscard]] const char* nameOf(ProbeState state);
/// The more severe of both: CRITICAL, UNKNOWN, WARNING, OK in this order.
[[nodiscard]] ProbeState worse(ProbeState one, ProbeState other);

/// The thresholds of one value. Without a value, it is not compared.
struct Limits {
  std::optional<double> warning{};
  std::optional<double> critical{};

  [[nodiscard]] bool given() const { return warning || critical; }
};

struct Thresholds {
  Limits roundTrip{1, 5};  ///< in seconds; a longer one is reported
  Limits free{};           ///< in bytes; less is reported
  Limits restart{};        ///< in seconds; a more recent restart is reported
};

/// The state of one device. `text` and `perfdata` are one line without a vertical bar.
struct Assessment {
  ProbeState state = ProbeState::ok;
  std::string text{};      ///< such as "up, round trip 1.2 ms"
  std::string perfdata{};  ///< 'label'=value[UOM];warn;crit;min;max, separated by blanks
};

/// A fact with a threshold that the device does not tell makes the state UNKNOWN.
[[nodiscard]] Assessment assess(const Facts& facts, const Thresholds& thresholds);

/// @p text in one line without vertical bars, which end the text of a plugin.
[[nodiscard]] std::string pluginText(std::string_view text);

/// The first line of a plugin, in parts.
struct Headline {
  ProbeState state = ProbeState::unknown;
  std::string text{};
  std::string perfdata{};

  /// Such as "RUNEL OK - gw-3 up | 'up'=1;;;0;1".
  [[nodiscard]] std::string line() const;
};

/// Of one device, or of all if there are several. Each of @p assessments is of the device at the
/// same place in @p facts.
[[nodiscard]] Headline headlineOf(const std::vector<Facts>& facts,
                                  const std::vector<Assessment>& assessments);
/// A line about one of several devices, below the headline.
[[nodiscard]] std::string detailLine(const Facts& facts, const Assessment& assessment);

}  // namespace runelctl

#endif  // RUNELCTL_PROBE_ASSESSMENT_H_
