// SPDX-License-Identifier: Apache-2.0
// The status line at the bottom of the terminal.
#ifndef RUNELCTL_OUTPUT_STATUS_LINE_H_
#define RUNELCTL_OUTPUT_STATUS_LINE_H_

#include <chrono>
#include <cstdint>
#include <string>

#include "output/report.h"
#include "output/style.h"

namespace runelctl {

/// Enabled only if standard error is a terminal, without --quiet and --json.
class StatusLine {
 public:
  explicit StatusLine(const Style& style)
      : enabled_(style.errTerminal && !style.quiet && !style.json) {}
  ~StatusLine() { clear(); }
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  /// Shows @p text, truncated to the width of the terminal, at most ten times a second unless @p
  /// now.
  void show(const std::string& text, bool now = false);
  /// Clears the line, before other output is written.
  void clear();
  [[nodiscard]] bool enabled() const { return enabled_; }

 private:
  const bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point last_;
};

/// A rate and the time for the @p left bytes, such as "1.4 MiB/s 0:42".
[[nodiscard]] std::string rateText(double bytesPerSecond, std::uint64_t left);

/// Formats the progress of a transfer as a bar with rate and remaining time.
class ProgressBar {
 public:
  /// The bar for @p columns columns. Omits the less important parts if there are few columns.
  [[nodiscard]] std::string text(const Progress& progress, std::size_t columns);

 private:
  std::chrono::steady_clock::time_point begin_;
  std::uint64_t first_ = 0;
  bool begun_ = false;
};

}  // namespace runelctl

#endif  // RUNELCTL_OUTPUT_STATUS_LINE_H_
