// SPDX-License-Identifier: Apache-2.0
#include "commands/raw_text.h"

#include <charconv>
#include <system_error>

namespace runelctl {
namespace {

// The length of the escape at the start of @p text, without its backslash; 0 if it is invalid.
std::size_t readEscape(std::string_view text, char& byte) {
  constexpr std::string_view kLetters = "ntr\\";
  constexpr std::string_view kBytes = "\n\t\r\\";
  const std::size_t letter = text.empty() ? std::string_view::npos : kLetters.find(text[0]);
  if (letter != std::string_view::npos) {
    byte = kBytes[letter];
    return 1;
  }
  if (text.size() < 3 || text[0] != 'x') {
    return 0;
  }
  unsigned char code = 0;
  const auto [stop, error] = std::from_chars(text.data() + 1, text.data() + 3, code, 16);
  byte = static_cast<char>(code);
  return error == std::errc() && stop == text.data() + 3 ? 3 : 0;
}

}  // namespace

bool readRawText(std::string_view text, std::string& bytes) {
  bytes.clear();
  while (!text.empty()) {
    char byte = text[0];
    text.remove_prefix(1);
    if (byte == '\\') {
      const std::size_t length = readEscape(text, byte);
      if (length == 0) {
        return false;
      }
      text.remove_prefix(length);
    }
    bytes += byte;
  }
  return true;
}

}  // namespace runelctl
