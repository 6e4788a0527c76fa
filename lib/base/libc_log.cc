// SPDX-License-Identifier: Apache-2.0
// Replaces openlog(3), syslog(3) and closelog(3) of the C library in a program that links this. The
// syslog(3) of musl truncates each line at 1,024 bytes.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>
#include <string_view>

#include "base/system_log.h"

namespace {

constexpr std::size_t kShortLine = 1024;

zell::SystemLog systemLog;

// Without memory for a long line, its start is logged.
__attribute__((format(printf, 2, 0))) void log(int priority, const char* format, va_list args) {
  const int saved = errno;
  char line[kShortLine];
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(line, sizeof line, format, args);
  std::string_view text;
  std::unique_ptr<char[]> longLine;
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof line) {
    text = std::string_view(line, static_cast<std::size_t>(length));
  } else if (length >= 0) {
    const auto size = static_cast<std::size_t>(length) + 1;
    text = std::string_view(line, sizeof line - 1);
    longLine.reset(new (std::nothrow) char[size]);
    if (longLine) {
      errno = saved;
      (void)std::vsnprintf(longLine.get(), size, format, again);
      text = std::string_view(longLine.get(), size - 1);
    }
  }
  va_end(again);
  systemLog.write(priority, text);
  errno = saved;
}

}  // namespace

// The names are those of the C library. The header's declarations would require its names of the
// parameters, which are reserved.
extern "C" {

void openLibcLog(const char* ident, int options, int facility) __asm__("openlog");
void closeLibcLog() __asm__("closelog");
void writeLibcLog(int priority, const char* format, ...) __asm__("syslog")
    __attribute__((format(printf, 2, 3)));
// glibc's headers make this of syslog() with _FORTIFY_SOURCE.
void writeCheckedLibcLog(int priority, int flag, const char* format, ...) __asm__("__syslog_chk")
    __attribute__((format(printf, 3, 4)));

void openLibcLog(const char* ident, int options, int facility) {
  systemLog.open(ident, options, facility);
}

void closeLibcLog() {
  systemLog.close();
}

void writeLibcLog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log(priority, format, args);
  va_end(args);
}

void writeCheckedLibcLog(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log(priority, format, args);
  va_end(args);
}

}  // extern "C"
