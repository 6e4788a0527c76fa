// SPDX-License-Identifier: Apache-2.0
#include "text/utf8.h"

#include <algorithm>

namespace zell {
namespace {

unsigned char byteAt(std::string_view text, std::size_t place) {
  return static_cast<unsigned char>(text[place]);
}

bool continuesSequence(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
}

// The length that the first byte announces, 0 for a byte that begins no sequence.
std::size_t announcedLength(unsigned char first) {
  return first < 0x80   ? 1
         : first < 0xc2 ? 0
         : first < 0xe0 ? 2
         : first < 0xf0 ? 3
         : first < 0xf5 ? 4
                        : 0;
}

}  // namespace

std::size_t utf8Sequence(std::string_view text, std::uint32_t& code) {
  const unsigned char first = byteAt(text, 0);
  const std::size_t length = announcedLength(first);
  if (length == 0 || length > text.size()) {
    return 0;
  }
  code = length == 1 ? first : first & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if (!continuesSequence(text[i])) {
      return 0;
    }
    code = (code << 6U) | (byteAt(text, i) & 0x3fU);
  }
  const bool tooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool noCharacter = (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff;
  return tooLong || noCharacter ? 0 : length;
}

bool isUtf8Beginning(std::string_view text) {
  return text.size() < announcedLength(byteAt(text, 0)) &&
         std::all_of(text.begin() + 1, text.end(), continuesSequence);
}

bool isUtf8(std::string_view bytes) {
  std::uint32_t code = 0;
  std::size_t place = 0;
  while (place < bytes.size()) {
    const std::size_t length =
        byteAt(bytes, place) < 0x80 ? 1 : utf8Sequence(bytes.substr(place), code);
    if (length == 0) {
      return false;
    }
    place += length;
  }
  return true;
}

}  // namespace zell
