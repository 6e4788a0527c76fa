// SPDX-License-Identifier: Apache-2.0
#include "base/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include <syslog.h>
#include <unistd.h>

namespace zell {
namespace {

// Most lines are short; longer ones (a dumped packet, a path) take memory for themselves.
constexpr std::size_t kShortLine = 1024;

// Formats a line and hands it to the system log, behind its process id unless that is 0. errno is
// restored before each use of %m, since the formatting itself may change it.
__attribute__((format(printf, 3, 0))) void send(int priority, pid_t pid, const char* format,
                                                va_list args) {
  const int saved = errno;
  char line[kShortLine];
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(line, sizeof line, format, args);
  std::string text;
  const char* shown = line;
  if (length < 0) {
    shown = format;
  } else if (static_cast<std::size_t>(length) >= sizeof line) {
    text.resize(static_cast<std::size_t>(length) + 1);
    errno = saved;
    std::vsnprintf(text.data(), text.size(), format, again);
    shown = text.c_str();
  }
  va_end(again);
  if (pid != 0) {
    syslog(priority, "(%d) %s", static_cast<int>(pid), shown);
  } else {
    syslog(priority, "%s", shown);
  }
  errno = saved;
}

}  // namespace

// The process id is asked for each time: a fork changes it.
void logLine(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  send(priority, getpid(), format, args);
  va_end(args);
}

void logPlain(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  send(priority, 0, format, args);
  va_end(args);
}

}  // namespace zell
