// SPDX-License-Identifier: Apache-2.0
#include "output/text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>

#include <nlohmann/json.hpp>

#include "text/utf8.h"

namespace runelctl {
namespace {

constexpr std::size_t kDumpWidth = 16;

unsigned char at(std::string_view text, std::size_t place) {
  return static_cast<unsigned char>(text[place]);
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

std::string jsonLine(const Json& object, bool terminal) {
  // Every string is valid UTF-8 or was encoded in base64.
  std::string line = object.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (terminal) {
    line = terminalSafeJson(line);
  }
  line += '\n';
  return line;
}

std::size_t unfinishedCharacter(std::string_view bytes) {
  for (std::size_t count = 1; count <= std::min<std::size_t>(3, bytes.size()); ++count) {
    if (zell::isUtf8Beginning(bytes.substr(bytes.size() - count))) {
      return count;
    }
  }
  return 0;
}

void putBytes(Json& object, const std::string& key, std::string_view bytes) {
  if (zell::isUtf8(bytes)) {
    object[key] = bytes;
  } else {
    object[key + "_base64"] = base64(bytes);
  }
}

void discard(Json& value) noexcept {
  if (auto* const object = value.get_ptr<Json::object_t*>()) {
    for (auto& member : *object) {
      discard(member.second);
    }
    object->clear();
  } else if (auto* const list = value.get_ptr<Json::array_t*>()) {
    for (Json& element : *list) {
      discard(element);
    }
    list->clear();
  }
}

void moveBytes(Json& object, const std::string& key, std::string&& bytes) {
  if (zell::isUtf8(bytes)) {
    object[key] = std::move(bytes);
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

std::string joined(const std::vector<std::string>& words, const std::string& between) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : between) + word;
  }
  return text;
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
