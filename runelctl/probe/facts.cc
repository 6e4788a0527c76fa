// SPDX-License-Identifier: Apache-2.0
#include "probe/facts.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace runelctl {
namespace {

// The unit of times in /proc/PID/stat, the same on all architectures that the daemon runs on.
constexpr double kTicksPerSecond = 100;
// Of the start time, counted from the first field after the name.
constexpr std::size_t kStartField = 19;
// Above this number of seconds, 31 years, a time is garbage.
constexpr double kMostUptime = 1e9;
// /proc/uptime has two digits. A process that has just started may seem younger than 0.
constexpr double kRounding = 0.02;

// A number of more digits would not be exact.
constexpr std::size_t kMostDigits = 15;

// The unsigned number that is all of @p text, of at most 15 digits.
std::optional<double> numberIn(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool valid =
      error == std::errc() && end == text.data() + text.size() && text.size() <= kMostDigits;
  return valid ? std::make_optional(static_cast<double>(number)) : std::nullopt;
}

// The field @p index of @p text, whose fields are separated by single blanks.
std::string_view fieldOf(std::string_view text, std::size_t index) {
  for (; index > 0; --index) {
    const std::size_t blank = text.find(' ');
    if (blank == std::string_view::npos) {
      return {};
    }
    text.remove_prefix(blank + 1);
  }
  return text.substr(0, text.find_first_of(" \n"));
}

}  // namespace

std::optional<double> parseUptime(std::string_view text) {
  const std::string_view field = fieldOf(text, 0);
  const std::size_t point = field.find('.');
  const std::optional<double> seconds = numberIn(field.substr(0, point));
  if (!seconds || *seconds > kMostUptime || point == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view fraction = field.substr(point + 1);
  const std::optional<double> hundredths = numberIn(fraction);
  return hundredths && fraction.size() == 2 ? std::make_optional(*seconds + *hundredths / 100)
                                            : std::nullopt;
}

std::optional<double> parseProcessStart(std::string_view text) {
  const std::size_t name = text.rfind(") ");  // the name may contain any bytes
  if (name == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view field = fieldOf(text.substr(name + 2), kStartField);
  const std::optional<double> ticks = numberIn(field);
  return ticks ? std::make_optional(*ticks / kTicksPerSecond) : std::nullopt;
}

std::optional<double> ageOf(std::optional<double> start, std::optional<double> uptime) {
  if (!start || !uptime || *uptime - *start < -kRounding) {
    return std::nullopt;
  }
  return std::max(std::round((*uptime - *start) * 100) / 100, 0.0);
}

double medianOf(std::vector<double> times) {
  std::sort(times.begin(), times.end());
  return (times[(times.size() - 1) / 2] + times[times.size() / 2]) / 2;
}

}  // namespace runelctl
