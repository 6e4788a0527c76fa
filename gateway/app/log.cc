// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/log.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "text/utf8.h"

namespace runelgw {
namespace {

constexpr int kStandardError = 2;

// A log that cannot be written is no reason to stop.
void writeToStandardError(std::string_view line) {
  while (!line.empty()) {
    const ssize_t count = ::write(kStandardError, line.data(), line.size());
    if (count <= 0) {
      return;
    }
    line.remove_prefix(static_cast<std::size_t>(count));
  }
}

const char* priorityOf(LogLevel level) {
  switch (level) {
    case LogLevel::error:
      return "<3>";
    case LogLevel::warning:
      return "<4>";
    case LogLevel::info:
      return "<6>";
    case LogLevel::debug:
      break;
  }
  return "<7>";
}

const char* nameOf(LogLevel level) {
  switch (level) {
    case LogLevel::error:
      return "error: ";
    case LogLevel::warning:
      return "warning: ";
    case LogLevel::info:
      return "info: ";
    case LogLevel::debug:
      break;
  }
  return "debug: ";
}

bool isControl(std::uint32_t code) {
  constexpr std::uint32_t kDelete = 0x7f;
  constexpr std::uint32_t kLastC1 = 0x9f;
  constexpr std::uint32_t kLineSeparator = 0x2028;
  constexpr std::uint32_t kParagraphSeparator = 0x2029;
  return code < ' ' || (code >= kDelete && code <= kLastC1) || code == kLineSeparator ||
         code == kParagraphSeparator;
}

void appendEscaped(std::string& shown, std::string_view bytes) {
  for (const char byte : bytes) {
    char text[5];
    (void)std::snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned char>(byte));
    shown += text;
  }
}

}  // namespace

Log::Log(LogLevel highest)
    : Log(highest, isJournal(kStandardError, std::getenv("JOURNAL_STREAM")), writeToStandardError) {
}

Log::Log(LogLevel highest, bool journal, Write write)
    : highest_(highest), journal_(journal), write_(std::move(write)) {}

void Log::line(LogLevel level, std::string_view text) const {
  if (level <= highest_) {
    // One write for a line, so that lines of several processes do not mix.
    write_((journal_ ? priorityOf(level) : nameOf(level)) + escapedForLog(text) + "\n");
  }
}

std::string escapedForLog(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = zell::utf8Sequence(text, code);
    const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
    if (length == 0 || isControl(code)) {
      appendEscaped(shown, sequence);
    } else {
      shown += code == '\\' ? "\\\\" : sequence;
    }
    text.remove_prefix(sequence.size());
  }
  return shown;
}

bool isJournal(int descriptor, const char* variable) {
  struct stat status {};
  return variable != nullptr && ::fstat(descriptor, &status) == 0 &&
         std::string(variable) ==
             std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

}  // namespace runelgw
