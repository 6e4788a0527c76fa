// SPDX-License-Identifier: Apache-2.0
#include "output/terminal_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "text/utf8.h"

namespace runelctl {
namespace {

// True for control characters and for marks that change the text direction.
bool actsOnTerminal(std::uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code <= 0x9f) || code == 0x061c || code == 0x200e ||
         code == 0x200f || code == 0x2028 || code == 0x2029 || (code >= 0x202a && code <= 0x202e) ||
         (code >= 0x2066 && code <= 0x2069) || code == 0xfeff;
}

void appendEscaped(std::string& text, unsigned char byte) {
  switch (byte) {
    case '\n':
      text += "\\n";
      break;
    case '\t':
      text += "\\t";
      break;
    case '\r':
      text += "\\r";
      break;
    case '\\':
      text += "\\\\";
      break;
    default:
      char code[8];
      std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned>(byte));
      text += code;
  }
}

void appendEscaped(std::string& text, std::string_view bytes) {
  for (const char byte : bytes) {
    appendEscaped(text, static_cast<unsigned char>(byte));
  }
}

// The number of bytes of one character, or 1 for a byte that is not part of a character.
std::size_t characterLength(std::string_view bytes) {
  std::uint32_t code = 0;
  return std::max<std::size_t>(zell::utf8Sequence(bytes, code), 1);
}

// The number of bytes of the character at the start of @p bytes if a terminal only prints it, or of
// a line end. 0 for others.
std::size_t harmlessLength(std::string_view bytes) {
  if (bytes.front() == '\n' || bytes.front() == '\t') {
    return 1;
  }
  if (bytes.substr(0, 2) == "\r\n") {
    return 2;
  }
  std::uint32_t code = 0;
  const std::size_t length = zell::utf8Sequence(bytes, code);
  return actsOnTerminal(code) ? 0 : length;
}

// The number of bytes at the start of @p bytes that a terminal only prints.
std::size_t harmlessStart(std::string_view bytes) {
  std::size_t end = 0;
  while (end < bytes.size()) {
    const bool plain = bytes[end] >= 0x20 && bytes[end] < 0x7f;
    const std::size_t length = plain ? 1 : harmlessLength(bytes.substr(end));
    if (length == 0) {
      break;
    }
    end += length;
  }
  return end;
}

// Whether the meaning of all of @p bytes depends on what follows.
bool isUndecided(std::string_view bytes) {
  return bytes == "\r" || (bytes.size() < 4 && zell::isUtf8Beginning(bytes));
}

}  // namespace

std::string terminalSafe(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    const std::size_t length = characterLength(bytes);
    const char first = bytes.front();
    const bool special = first == '\n' || first == '\t' || first == '\\';
    if (special || harmlessLength(bytes) != length) {
      appendEscaped(text, bytes.substr(0, length));
    } else {
      text.append(bytes.substr(0, length));
    }
    bytes.remove_prefix(length);
  }
  return text;
}

// JSON is valid UTF-8, its only control characters are line ends, and all other characters that act
// on a terminal have four digits.
std::string terminalSafeJson(std::string_view line) {
  std::string text;
  while (!line.empty()) {
    const std::size_t count = harmlessStart(line);
    text.append(line.substr(0, count));
    line.remove_prefix(count);
    if (!line.empty()) {
      std::uint32_t code = 0;
      char escape[16];
      const std::size_t length = std::max<std::size_t>(zell::utf8Sequence(line, code), 1);
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(code & 0xffffU));
      text += escape;
      line.remove_prefix(length);
    }
  }
  return text;
}

std::string TerminalText::add(std::string_view bytes) {
  std::string joined;
  if (!kept_.empty()) {
    joined = std::exchange(kept_, "").append(bytes);
    bytes = joined;
  }
  std::string text;
  while (!bytes.empty() && !isUndecided(bytes)) {
    std::size_t count = harmlessStart(bytes);
    if (count > 0) {
      text.append(bytes.substr(0, count));
    } else {
      count = characterLength(bytes);
      appendEscaped(text, bytes.substr(0, count));
    }
    bytes.remove_prefix(count);
  }
  kept_ = bytes;
  return text;
}

std::string TerminalText::end() {
  std::string text;
  appendEscaped(text, std::exchange(kept_, ""));
  return text;
}

}  // namespace runelctl
