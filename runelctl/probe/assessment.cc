// SPDX-License-Identifier: Apache-2.0
#include "probe/assessment.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "output/name_ranges.h"
#include "output/terminal_text.h"
#include "output/text.h"
#include "probe/number_text.h"

namespace runelctl {
namespace {

// By the number of the state: the place in the order of severity.
constexpr int kSeverity[] = {0, 1, 3, 2};
// From the most to the least severe.
constexpr ProbeState kStates[] = {ProbeState::critical, ProbeState::unknown, ProbeState::warning,
                                  ProbeState::ok};
constexpr double kLongSeconds = 120;
constexpr double kLongMinutes = 2 * 3600;
constexpr double kLongHours = 48 * 3600;

std::string roundTripText(double seconds) {
  return seconds < 1 ? decimalText(seconds * 1000, seconds < 0.001 ? 2 : 1) + " ms"
                     : decimalText(seconds, 2) + " s";
}

// Rounded down, in a unit in which two digits are enough. The performance data has the exact value.
std::string ageText(double seconds) {
  if (seconds < kLongSeconds) {
    return decimalText(std::floor(seconds), 0) + " s";
  }
  if (seconds < kLongMinutes) {
    return decimalText(std::floor(seconds / 60), 0) + " min";
  }
  return seconds < kLongHours ? decimalText(std::floor(seconds / 3600), 0) + " h"
                              : decimalText(std::floor(seconds / 86400), 0) + " days";
}

std::string secondsText(double seconds) {
  return shortText(seconds) + " s";
}

std::string bytesText(double bytes) {
  return sizeText(static_cast<std::uint64_t>(bytes));
}

// In which direction a value is bad, and the texts for that.
struct Direction {
  bool below;  // bad if the value is below the threshold, otherwise if it is above
  std::string (*limitText)(double);
};

bool exceeds(const Direction& direction, double value, std::optional<double> limit) {
  return limit && (direction.below ? value < *limit : value > *limit);
}

// A threshold in performance data: the range of the values that are good.
std::string rangeText(const Direction& direction, std::optional<double> limit) {
  return limit ? shortText(*limit) + (direction.below ? ":" : "") : "";
}

// Labels may contain blanks. A quote is doubled.
std::string labelOf(const std::string& name) {
  std::string label = "'";
  for (const char byte : pluginText(name)) {
    label += byte == '=' ? '_' : byte;
    label += byte == '\'' ? "'" : "";
  }
  return label + "'";
}

class Assessor {
 public:
  // Adds a value that is compared with @p limits. @p shown is its text.
  void compare(const Direction& direction, double value, const Limits& limits,
               const std::string& shown) {
    ProbeState state = ProbeState::ok;
    std::optional<double> limit;
    if (exceeds(direction, value, limits.critical)) {
      state = ProbeState::critical;
      limit = limits.critical;
    } else if (exceeds(direction, value, limits.warning)) {
      state = ProbeState::warning;
      limit = limits.warning;
    }
    add(state, shown + (limit ? std::string(" (") + nameOf(state) + ": " +
                                    (direction.below ? "below " : "above ") +
                                    direction.limitText(*limit) + ")"
                              : ""));
  }

  // Adds a fact that is missing although it has a threshold.
  void miss(const std::string& what) { add(ProbeState::unknown, what); }

  void add(ProbeState state, const std::string& text) {
    result_.state = worse(result_.state, state);
    result_.text += (result_.text.empty() ? "" : ", ") + text;
  }

  void measure(const std::string& label, const std::string& value, const std::string& warning,
               const std::string& critical, const std::string& most = "") {
    result_.perfdata += (result_.perfdata.empty() ? "" : " ") + labelOf(label) + "=" + value + ";" +
                        warning + ";" + critical + ";0;" + most;
  }

  Assessment take() { return std::move(result_); }

 private:
  Assessment result_;
};

constexpr Direction kRoundTrip{false, secondsText};
constexpr Direction kFree{true, bytesText};
constexpr Direction kRestart{true, secondsText};

void assessFree(const FreeSpace& free, const Limits& limits, Assessor& assessor) {
  const std::string where = "free on " + pluginText(free.path);
  if (!free.bytes) {
    if (limits.given()) {
      assessor.miss(where + " unknown: " + pluginText(free.why));
    }
    return;
  }
  assessor.compare(kFree, static_cast<double>(*free.bytes), limits,
                   where + " " + sizeText(*free.bytes));
  assessor.measure("free_" + free.path, std::to_string(*free.bytes) + "B",
                   rangeText(kFree, limits.warning), rangeText(kFree, limits.critical));
}

void assessRestart(const Facts& facts, const Limits& limits, Assessor& assessor) {
  if (!facts.restartAge) {
    if (limits.given()) {
      assessor.miss("last restart unknown");
    }
    return;
  }
  assessor.compare(kRestart, *facts.restartAge, limits,
                   "daemon started " + ageText(*facts.restartAge) + " ago");
  assessor.measure("restart_age", decimalText(*facts.restartAge, 2) + "s",
                   rangeText(kRestart, limits.warning), rangeText(kRestart, limits.critical));
}

// "2 CRITICAL (gw-[02-03])"; without names if they are those of the devices that are fine.
std::string countOf(ProbeState state, const std::vector<Facts>& facts,
                    const std::vector<Assessment>& assessments) {
  std::vector<std::string> names;
  for (std::size_t index = 0; index < facts.size(); ++index) {
    if (assessments[index].state == state) {
      names.push_back(facts[index].device);
    }
  }
  if (names.empty()) {
    return "";
  }
  const std::string count = std::to_string(names.size()) + " " + nameOf(state);
  return state == ProbeState::ok ? count : count + " (" + foldNames(names) + ")";
}

}  // namespace

const char* nameOf(ProbeState state) {
  constexpr const char* kNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
  return kNames[static_cast<int>(state)];
}

ProbeState worse(ProbeState one, ProbeState other) {
  const bool otherIsWorse = kSeverity[static_cast<int>(other)] > kSeverity[static_cast<int>(one)];
  return otherIsWorse ? other : one;
}

Assessment assess(const Facts& facts, const Thresholds& thresholds) {
  Assessor assessor;
  assessor.measure("up", facts.up() ? "1" : "0", "", "", "1");
  if (facts.failure) {
    const Error& error = *facts.failure;
    assessor.add(facts.undecided ? ProbeState::unknown : ProbeState::critical,
                 (facts.undecided ? "not reached: " : "down: ") + pluginText(error.what) +
                     (error.hint.empty() ? "" : " (" + pluginText(error.hint) + ")"));
    return assessor.take();
  }
  assessor.add(ProbeState::ok, "up");
  if (facts.roundTrip) {
    assessor.compare(kRoundTrip, *facts.roundTrip, thresholds.roundTrip,
                     "round trip " + roundTripText(*facts.roundTrip));
    assessor.measure("rtt", decimalText(*facts.roundTrip, 6) + "s",
                     rangeText(kRoundTrip, thresholds.roundTrip.warning),
                     rangeText(kRoundTrip, thresholds.roundTrip.critical));
  }
  if (facts.uptime) {
    assessor.add(ProbeState::ok, "uptime " + ageText(*facts.uptime));
    assessor.measure("uptime", decimalText(*facts.uptime, 2) + "s", "", "");
  }
  for (const FreeSpace& free : facts.free) {
    assessFree(free, thresholds.free, assessor);
  }
  if (facts.version) {
    assessor.add(ProbeState::ok, "version " + *facts.version);
  }
  assessRestart(facts, thresholds.restart, assessor);
  return assessor.take();
}

std::string pluginText(std::string_view text) {
  std::string line = terminalSafe(text);
  for (std::size_t at = line.find('|'); at != std::string::npos; at = line.find('|', at)) {
    line.replace(at, 1, "\\x7c");
  }
  return line;
}

std::string Headline::line() const {
  return std::string("RUNEL ") + nameOf(state) + " - " + text +
         (perfdata.empty() ? "" : " | " + perfdata);
}

Headline headlineOf(const std::vector<Facts>& facts, const std::vector<Assessment>& assessments) {
  if (facts.size() == 1) {
    const Assessment& one = assessments.front();
    return {one.state, pluginText(facts.front().device) + " " + one.text, one.perfdata};
  }
  Headline all{ProbeState::ok, countText(facts.size(), "device") + ": ", ""};
  std::string counts;
  for (const ProbeState state : kStates) {
    const std::string count = countOf(state, facts, assessments);
    counts += (counts.empty() || count.empty() ? "" : ", ") + count;
    all.state = count.empty() ? all.state : worse(all.state, state);
  }
  const auto up =
      std::count_if(facts.begin(), facts.end(), [](const Facts& one) { return one.up(); });
  all.text += pluginText(counts);
  all.perfdata = "'up'=" + std::to_string(up) + ";;;0;" + std::to_string(facts.size());
  return all;
}

std::string detailLine(const Facts& facts, const Assessment& assessment) {
  return pluginText(facts.device) + ": " + nameOf(assessment.state) + " - " + assessment.text;
}

}  // namespace runelctl
