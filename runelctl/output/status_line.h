// SPDX-License-Identifier: Apache-2.0
// The one line at the bottom of the terminal that changes while the work goes on.
#ifndef ZELL_RUNELCTL_OUTPUT_STATUS_LINE_H_
#define ZELL_RUNELCTL_OUTPUT_STATUS_LINE_H_

#include <chrono>
#include <string>

#include "output/report.h"
#include "output/style.h"

namespace zell::ctl {

/// Shows nothing unless standard error is a terminal and people read along.
class StatusLine {
 public:
  explicit StatusLine(const Style& style)
      : enabled_(style.errTerminal && !style.quiet && !style.json) {}
  ~StatusLine() { clear(); }
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  /// Shows @p text, cut to the terminal's width; at most ten times a second unless @p now.
  void show(const std::string& text, bool now = false);
  /// Takes the line away, before something else is written.
  void clear();
  [[nodiscard]] bool enabled() const { return enabled_; }

 private:
  const bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point last_;
};

/// Turns how far a transfer has come into a bar with rate and time left.
class ProgressBar {
 public:
  /// The bar for @p columns columns, the least useful parts left out where they are few.
  [[nodiscard]] std::string text(const Progress& progress, std::size_t columns);

 private:
  std::chrono::steady_clock::time_point begin_;
  std::uint64_t first_ = 0;
  bool begun_ = false;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_OUTPUT_STATUS_LINE_H_
