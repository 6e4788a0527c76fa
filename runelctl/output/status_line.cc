// SPDX-License-Identifier: Apache-2.0
#include "output/status_line.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <unistd.h>

namespace runelctl {
namespace {

constexpr std::chrono::milliseconds kLeastPause{100};
constexpr std::size_t kBarWidth = 20;
constexpr std::size_t kNameWidth = 24;

std::string bar(std::uint64_t done, std::uint64_t total) {
  const std::uint64_t full = total == 0 ? kBarWidth : done * kBarWidth / total;
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(full, kBarWidth));
  return "[" + std::string(count, '#') + std::string(kBarWidth - count, '.') + "]";
}

std::string timeText(double seconds) {
  char text[32];
  const auto whole = std::lround(std::min(seconds, 359999.0));
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  }
  return text;
}

}  // namespace

void StatusLine::show(const std::string& text, bool now) {
  const auto moment = std::chrono::steady_clock::now();
  if (!enabled_ || (!now && shown_ && moment - last_ < kLeastPause)) {
    return;
  }
  last_ = moment;
  shown_ = true;
  (void)writeAll(STDERR_FILENO, "\r\x1b[K" + cutTo(text, terminalColumns() - 1));
}

void StatusLine::clear() {
  if (shown_) {
    (void)writeAll(STDERR_FILENO, "\r\x1b[K");
    shown_ = false;
  }
}

std::string rateText(double bytesPerSecond, std::uint64_t left) {
  return sizeText(static_cast<std::uint64_t>(bytesPerSecond)) + "/s " +
         timeText(static_cast<double>(left) / bytesPerSecond);
}

std::string ProgressBar::text(const Progress& progress, std::size_t columns) {
  const auto now = std::chrono::steady_clock::now();
  if (!begun_ || progress.done < first_) {
    begun_ = true;
    begin_ = now;
    first_ = progress.done;
  }
  const double passed = std::chrono::duration<double>(now - begin_).count();
  const double rate = passed > 0 ? static_cast<double>(progress.done - first_) / passed : 0;
  const std::uint64_t left = progress.total - std::min(progress.done, progress.total);
  const std::uint64_t percent =
      progress.total == 0 ? 100
                          : std::min<std::uint64_t>(100, progress.done * 100 / progress.total);
  std::string line = std::to_string(percent) + "%";
  if (rate > 0) {
    line += " " + rateText(rate, left);
  }
  if (columns > line.size() + kBarWidth + 4) {
    line = bar(progress.done, progress.total) + " " + line;
  }
  const std::string name = cutTo(terminalSafe(progress.what), kNameWidth);
  if (columns > line.size() + name.size() + 2) {
    line = name + " " + line;
  }
  return line;
}

}  // namespace runelctl
