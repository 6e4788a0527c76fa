// SPDX-License-Identifier: Apache-2.0
// Captures the lines that a test program sends to the system log.
#ifndef TESTS_SUPPORT_LOG_CAPTURE_H_
#define TESTS_SUPPORT_LOG_CAPTURE_H_

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace zell::test {

/// One call of syslog(3). In `text`, the literal "(PID) " replaces the prefix with the number of
/// this process, so that expectations can be constants.
struct LogEntry {
  int priority;
  std::string text;
  bool operator==(const LogEntry& other) const {
    return priority == other.priority && text == other.text;
  }
};
std::ostream& operator<<(std::ostream& out, const LogEntry& entry);

/// Collects the lines from its construction to its destruction; the newest object gets them.
/// Replaces syslog(), openlog() and closelog() in every program that links this. Lines are
/// discarded while no object exists.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  [[nodiscard]] const std::vector<LogEntry>& entries() const { return entries_; }
  /// The texts of all lines.
  [[nodiscard]] std::vector<std::string> texts() const;
  /// The texts of @p priority.
  [[nodiscard]] std::vector<std::string> texts(int priority) const;
  /// The number of lines that equal @p text.
  [[nodiscard]] int count(const std::string& text) const;
  /// The number of lines that contain @p part.
  [[nodiscard]] int countContaining(const std::string& part) const;
  /// The calls of openlog and closelog: "openlog IDENT OPTIONS FACILITY", "closelog".
  [[nodiscard]] const std::vector<std::string>& controls() const { return controls_; }
  void clear();

  /// Called with each captured line, so that a test can act between two steps of a function.
  std::function<void(const LogEntry&)> onEntry;

  // For the replaced functions.
  void add(LogEntry entry);
  void addControl(std::string call) { controls_.push_back(std::move(call)); }

 private:
  LogCapture* outer_;
  std::vector<LogEntry> entries_;
  std::vector<std::string> controls_;
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_LOG_CAPTURE_H_
