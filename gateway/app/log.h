// SPDX-License-Identifier: Apache-2.0
// The log of the gateway: lines on standard error.
#ifndef RUNELGW_APP_LOG_H_
#define RUNELGW_APP_LOG_H_

#include <functional>
#include <string>
#include <string_view>

#include "gateway/config/settings.h"

namespace runelgw {

/// Writes lines to standard error. In the journal of systemd each line begins with its priority,
/// "<6>"; elsewhere with the name of its level.
class Log {
 public:
  /// Receives one line with its line feed.
  using Write = std::function<void(std::string_view line)>;

  /// To standard error.
  explicit Log(LogLevel highest);
  /// @p journal: each line begins with its priority.
  Log(LogLevel highest, bool journal, Write write);

  /// Logs one line, if @p level is not above the highest. Anything but printable ASCII and valid
  /// UTF-8 is escaped, so that no text can forge a line.
  void line(LogLevel level, std::string_view text) const;
  void error(std::string_view text) const { line(LogLevel::error, text); }
  void warning(std::string_view text) const { line(LogLevel::warning, text); }
  void info(std::string_view text) const { line(LogLevel::info, text); }
  void debug(std::string_view text) const { line(LogLevel::debug, text); }

 private:
  LogLevel highest_;
  bool journal_;
  Write write_;
};

/// @p text without control characters: they and invalid UTF-8 become "\xHH", a backslash "\\".
[[nodiscard]] std::string escapedForLog(std::string_view text);

/// Whether standard error is the journal that @p variable, the value of JOURNAL_STREAM, names.
[[nodiscard]] bool isJournal(int descriptor, const char* variable);

}  // namespace runelgw

#endif  // RUNELGW_APP_LOG_H_
