// SPDX-License-Identifier: Apache-2.0
// White space as the protocols of this daemon define it.
#ifndef ZELL_BASE_BLANK_H_
#define ZELL_BASE_BLANK_H_

#include <string_view>

namespace zell {

constexpr std::string_view kBlanks = " \t\r\n";

// Compares instead of searching kBlanks, because relays call it for every byte.
constexpr bool isBlank(char byte) {
  return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
}

}  // namespace zell

#endif  // ZELL_BASE_BLANK_H_
