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

// Puts the "(PID) " in front into @p line. The process id is asked for each time: a fork changes
// it.
int putPrefix(char* line, std::size_t size) {
  return std::snprintf(line, size, "(%d) ", static_cast<int>(getpid()));
}

// Formats behind the first @p used bytes of a line and hands the whole to the system log. errno is
// restored before each use of %m, since the formatting itself may change it.
__attribute__((format(printf, 4, 0))) void send(int priority, const char* prefix, int used,
                                                const char* format, va_list args) {
  const int saved = errno;
  char line[kShortLine];
  std::snprintf(line, sizeof line, "%s", prefix);
  va_list again;
  va_copy(again, args);
  const auto head = static_cast<std::size_t>(used);
  errno = saved;
  const int length = std::vsnprintf(line + head, sizeof line - head, format, args);
  if (length < 0) {
    syslog(priority, "%s%s", prefix, format);
  } else if (static_cast<std::size_t>(length) < sizeof line - head) {
    syslog(priority, "%s", line);
  } else {
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    errno = saved;
    std::vsnprintf(text.data(), text.size(), format, again);
    syslog(priority, "%s%s", prefix, text.c_str());
  }
  va_end(again);
  errno = saved;
}

}  // namespace

void logLine(int priority, const char* format, ...) {
  const int saved = errno;
  char prefix[32];
  const int used = putPrefix(prefix, sizeof prefix);
  va_list args;
  va_start(args, format);
  errno = saved;
  send(priority, prefix, used, format, args);
  va_end(args);
}

void logPlain(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  send(priority, "", 0, format, args);
  va_end(args);
}

}  // namespace zell
