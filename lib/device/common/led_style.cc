// SPDX-License-Identifier: Apache-2.0
#include <zell/led_style.h>

#include <utility>

namespace zell {

LedStyle::Type LedStyle::toEnum(const std::string& word) {
  constexpr std::pair<const char*, Type> kStyles[] = {
      {"off", off}, {"on", on}, {"slow", slow}, {"fast", fast}, {"alternate", alternate}};
  for (const auto& [name, style] : kStyles) {
    if (word == name) {
      return style;
    }
  }
  return unknown;
}

}  // namespace zell
