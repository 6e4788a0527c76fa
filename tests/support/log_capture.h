// SPDX-License-Identifier: Apache-2.0
// Catches what a test program would send to the system log.
#ifndef TESTS_SUPPORT_LOG_CAPTURE_H_
#define TESTS_SUPPORT_LOG_CAPTURE_H_

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace zell::test {

/// One line as it was handed to syslog(3). In `text`, this process's "(PID) " in front is replaced
/// by
/// "(PID) " to the letter, so that expectations can be written down.
struct LogEntry {
  int priority;
  std::string text;
  bool operator==(const LogEntry& other) const {
    return priority == other.priority && text == other.text;
  }
};
std::ostream& operator<<(std::ostream& out, const LogEntry& entry);

/// Collects the lines from its construction to its destruction; the newest living one gets them.
/// syslog(), openlog() and closelog() are replaced in every program that links this: lines that
/// nobody collects are thrown away.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  [[nodiscard]] const std::vector<LogEntry>& entries() const { return entries_; }
  /// The texts alone.
  [[nodiscard]] std::vector<std::string> texts() const;
  /// The texts of @p priority.
  [[nodiscard]] std::vector<std::string> texts(int priority) const;
  /// How many lines are @p text to the letter.
  [[nodiscard]] int count(const std::string& text) const;
  /// How many lines contain @p part.
  [[nodiscard]] int countContaining(const std::string& part) const;
  /// The calls of openlog and closelog: "openlog IDENT OPTIONS FACILITY", "closelog".
  [[nodiscard]] const std::vector<std::string>& controls() const { return controls_; }
  void clear();

  /// Called with each line when it has been taken: the place between two of a function's steps that
  /// a test can act in.
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
