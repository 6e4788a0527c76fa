// SPDX-License-Identifier: Apache-2.0
#include "output/text.h"

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace runelctl {
namespace {

constexpr std::size_t kDumpWidth = 16;

unsigned char at(std::string_view text, std::size_t place) {
  return static_cast<unsigned char>(text[place]);
}

// The length of the valid UTF-8 sequence at the start of @p text, and its code point. 0 for an
// invalid sequence, such as an overlong form, a surrogate or a number above 0x10ffff.
std::size_t sequence(std::string_view text, std::uint32_t& code) {
  const unsigned char first = at(text, 0);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xc2 ? 0
                             : first < 0xe0 ? 2
                             : first < 0xf0 ? 3
                             : first < 0xf5 ? 4
                                            : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  code = length == 1 ? first : first & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(text, i) & 0xc0U) != 0x80) {
      return 0;
    }
    code = (code << 6U) | (at(text, i) & 0x3fU);
  }
  const bool tooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool noCharacter = (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff;
  return tooLong || noCharacter ? 0 : length;
}

// True for control characters, which a terminal interprets.
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

bool isUtf8(std::string_view bytes) {
  std::uint32_t code = 0;
  while (!bytes.empty()) {
    const std::size_t length = sequence(bytes, code);
    if (length == 0) {
      return false;
    }
    bytes.remove_prefix(length);
  }
  return true;
}

std::string base64(std::string_view bytes) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t part = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      part = (part << 8U) | (k < count ? at(bytes, i + k) : 0U);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      text += k <= count ? kDigits[(part >> (18 - 6 * k)) & 0x3fU] : '=';
    }
  }
  return text;
}

}  // namespace

std::string terminalSafe(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = sequence(bytes, code);
    if (length == 0 || actsOnTerminal(code) || code == '\\') {
      const std::size_t bad = std::max<std::size_t>(length, 1);
      for (std::size_t i = 0; i < bad; ++i) {
        appendEscaped(text, at(bytes, i));
      }
      bytes.remove_prefix(bad);
    } else {
      text.append(bytes.substr(0, length));
      bytes.remove_prefix(length);
    }
  }
  return text;
}

void putBytes(Json& object, const std::string& key, std::string_view bytes) {
  if (isUtf8(bytes)) {
    object[key] = bytes;
  } else {
    object[key + "_base64"] = base64(bytes);
  }
}

std::string cutTo(std::string_view text, std::size_t columns) {
  std::size_t end = 0;
  for (std::size_t shown = 0; end < text.size() && shown < columns; ++shown) {
    ++end;
    while (end < text.size() && (at(text, end) & 0xc0U) == 0x80) {
      ++end;
    }
  }
  return std::string(text.substr(0, end));
}

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

std::string sizeText(std::uint64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; value >= 1024 && unit < 6; ++unit) {
    value /= 1024;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 || value >= 100 ? "%.0f %s" : "%.1f %s", value,
                kUnits[unit]);
  return text;
}

std::string countText(std::size_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string hexDump(std::string_view bytes) {
  std::string text;
  for (std::size_t line = 0; line < bytes.size(); line += kDumpWidth) {
    char code[32];
    std::snprintf(code, sizeof code, "%08zx ", line);
    text += code;
    std::string shown;
    for (std::size_t i = line; i < line + kDumpWidth; ++i) {
      if (i < bytes.size()) {
        std::snprintf(code, sizeof code, " %02x", static_cast<unsigned>(at(bytes, i)));
        text += code;
        shown += at(bytes, i) >= 0x20 && at(bytes, i) < 0x7f ? bytes[i] : '.';
      } else {
        text += "   ";
      }
      text += i % 8 == 7 ? " " : "";
    }
    text += " |" + shown + "|\n";
  }
  return text;
}

}  // namespace runelctl
