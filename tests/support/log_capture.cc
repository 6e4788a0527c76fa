// SPDX-License-Identifier: Apache-2.0
#include "support/log_capture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include <syslog.h>
#include <unistd.h>

namespace zell::test {
namespace {

LogCapture* g_newest = nullptr;

__attribute__((format(printf, 2, 0))) void capture(int priority, const char* format, va_list args) {
  if (g_newest == nullptr) {
    return;
  }
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  text.pop_back();
  const std::string own = "(" + std::to_string(getpid()) + ") ";
  if (text.compare(0, own.size(), own) == 0) {
    text.replace(0, own.size(), "(PID) ");
  }
  g_newest->add({priority, std::move(text)});
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogEntry& entry) {
  return out << entry.priority << " \"" << entry.text << '"';
}

LogCapture::LogCapture() : outer_(g_newest) {
  g_newest = this;
}

LogCapture::~LogCapture() {
  g_newest = outer_;
}

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> all;
  for (const LogEntry& entry : entries_) {
    all.push_back(entry.text);
  }
  return all;
}

std::vector<std::string> LogCapture::texts(int priority) const {
  std::vector<std::string> some;
  for (const LogEntry& entry : entries_) {
    if (entry.priority == priority) {
      some.push_back(entry.text);
    }
  }
  return some;
}

int LogCapture::count(const std::string& text) const {
  return static_cast<int>(std::count_if(entries_.begin(), entries_.end(),
                                        [&](const LogEntry& e) { return e.text == text; }));
}

int LogCapture::countContaining(const std::string& part) const {
  return static_cast<int>(std::count_if(entries_.begin(), entries_.end(), [&](const LogEntry& e) {
    return e.text.find(part) != std::string::npos;
  }));
}

void LogCapture::add(LogEntry entry) {
  entries_.push_back(entry);
  if (onEntry) {
    onEntry(entry);
  }
}

void LogCapture::clear() {
  entries_.clear();
  controls_.clear();
}

}  // namespace zell::test

// Replace the functions of the C library at link time.
extern "C" {

void openlog(const char* ident, int options, int facility) {
  if (zell::test::g_newest != nullptr) {
    zell::test::g_newest->addControl(std::string("openlog ") + ident + " " +
                                     std::to_string(options) + " " + std::to_string(facility));
  }
}

void closelog() {
  if (zell::test::g_newest != nullptr) {
    zell::test::g_newest->addControl("closelog");
  }
}

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  zell::test::capture(priority, format, args);
  va_end(args);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int /*flag*/,
                                                        const char* format, ...) {
  va_list args;
  va_start(args, format);
  zell::test::capture(priority, format, args);
  va_end(args);
}

}  // extern "C"
