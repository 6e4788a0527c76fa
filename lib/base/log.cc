// SPDX-License-Identifier: Apache-2.0
#include "base/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

#include <syslog.h>
#include <unistd.h>

namespace zell {
namespace {

// Most lines are short. Longer ones (a dumped packet, a path) are formatted in allocated memory.
constexpr std::size_t kShortLine = 1024;

// The longest datagram that the system log accepts, with a margin. It would drop a longer line.
constexpr std::size_t kLongestLine = 131072;
constexpr std::string_view kCutMark = "...";

// Formats a text of @p length bytes. Truncates it to @p room bytes, which end with the mark.
__attribute__((format(printf, 3, 0))) std::string longText(std::size_t length, std::size_t room,
                                                           const char* format, va_list args) {
  std::string text(std::min(length, room) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  if (length > room) {
    text.replace(room - kCutMark.size(), kCutMark.size(), kCutMark);
  }
  return text;
}

// Formats a line and passes it to the system log, behind @p prefix. Restores errno before each use
// of %m, because the formatting itself may change errno.
__attribute__((format(printf, 3, 0))) void send(int priority, const std::string& prefix,
                                                const char* format, va_list args) {
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
    errno = saved;
    text = longText(static_cast<std::size_t>(length), kLongestLine - prefix.size(), format, again);
    shown = text.c_str();
  }
  va_end(again);
  syslog(priority, "%s%s", prefix.c_str(), shown);
  errno = saved;
}

}  // namespace

// Asks for the process id at each call, because a fork changes it.
void logLine(int priority, const char* format, ...) {
  const std::string prefix = "(" + std::to_string(getpid()) + ") ";
  va_list args;
  va_start(args, format);
  send(priority, prefix, format, args);
  va_end(args);
}

void logPlain(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  send(priority, "", format, args);
  va_end(args);
}

}  // namespace zell
