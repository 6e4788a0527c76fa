// SPDX-License-Identifier: Apache-2.0
#include "gateway/config/setting_value.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace runelgw {
namespace {

std::vector<std::string> splitAtCommas(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  while (!text.empty() && begin <= text.size()) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

bool isNumeric(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789.") == std::string::npos &&
         text.find('.') == text.rfind('.') && text.front() != '.' && text.back() != '.';
}

RawValue numberOf(const std::string& text) {
  constexpr std::size_t kMostDigits = 18;  // fits std::int64_t
  if (!isNumeric(text) || text.size() > kMostDigits) {
    return {};
  }
  if (text.find('.') == std::string::npos) {
    return static_cast<std::int64_t>(std::strtoll(text.c_str(), nullptr, 10));
  }
  return std::strtod(text.c_str(), nullptr);
}

}  // namespace

RawValue rawValueOf(SettingPlace::Kind kind, const std::string& text) {
  switch (kind) {
    case SettingPlace::Kind::list:
      return splitAtCommas(text);
    case SettingPlace::Kind::count:
    case SettingPlace::Kind::number:
      return numberOf(text);
    case SettingPlace::Kind::text:
      break;
  }
  return text;
}

std::string tomlString(std::string_view text) {
  std::string quoted = "\"";
  for (const char byte : text) {
    if (byte == '"' || byte == '\\') {
      quoted += '\\';
      quoted += byte;
    } else if ((byte >= 0 && byte < ' ') || byte == '\x7f') {
      char escaped[8];
      (void)std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(byte));
      quoted += escaped;
    } else {
      quoted += byte;
    }
  }
  return quoted + '"';
}

}  // namespace runelgw
