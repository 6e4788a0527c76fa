// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/text_codec.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace runelgw {

namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr std::string_view kBase64Digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::uint32_t byteAt(std::string_view text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

char charOf(std::uint32_t value) {
  return static_cast<char>(static_cast<unsigned char>(value));
}

// Adds the byte of two hexadecimal digits at @p index.
bool addHexByte(std::string_view text, std::size_t index, std::string& bytes) {
  if (index + 2 > text.size()) {
    return false;
  }
  const std::size_t high = kHexDigits.find(text[index]);
  const std::size_t low = kHexDigits.find(text[index + 1]);
  if (high == std::string_view::npos || low == std::string_view::npos) {
    return false;
  }
  bytes += charOf(static_cast<std::uint32_t>(high * 16 + low));
  return true;
}

// A form of UTF-8: its first bytes, and the second bytes that are neither overlong, nor a
// surrogate, nor beyond the last character.
struct Utf8Form {
  std::uint32_t first, last, secondFirst, secondLast;
  std::size_t length;
};
constexpr std::array<Utf8Form, 8> kUtf8Forms = {{{0xc2, 0xdf, 0x80, 0xbf, 2},
                                                 {0xe0, 0xe0, 0xa0, 0xbf, 3},
                                                 {0xe1, 0xec, 0x80, 0xbf, 3},
                                                 {0xed, 0xed, 0x80, 0x9f, 3},
                                                 {0xee, 0xef, 0x80, 0xbf, 3},
                                                 {0xf0, 0xf0, 0x90, 0xbf, 4},
                                                 {0xf1, 0xf3, 0x80, 0xbf, 4},
                                                 {0xf4, 0xf4, 0x80, 0x8f, 4}}};

bool continues(std::string_view bytes, std::size_t index, const Utf8Form& form) {
  const std::uint32_t second = byteAt(bytes, index + 1);
  if (second < form.secondFirst || second > form.secondLast) {
    return false;
  }
  for (std::size_t i = 2; i < form.length; ++i) {
    if ((byteAt(bytes, index + i) & 0xc0U) != 0x80U) {
      return false;
    }
  }
  return true;
}

// The length of the character at @p index that can stay as it is; 0: its byte is escaped.
std::size_t plainLength(std::string_view bytes, std::size_t index) {
  const std::uint32_t first = byteAt(bytes, index);
  if (first < 0x80) {
    return first >= 0x20 && first != 0x7f ? 1 : 0;
  }
  for (const Utf8Form& form : kUtf8Forms) {
    if (first >= form.first && first <= form.last) {
      return index + form.length <= bytes.size() && continues(bytes, index, form) ? form.length : 0;
    }
  }
  return 0;
}

// The value of @p count digits at @p index, which are shifted to the place of four.
bool base64Group(std::string_view text, std::size_t index, std::size_t count,
                 std::uint32_t& group) {
  group = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    std::size_t digit = 0;
    if (i < count) {
      digit = kBase64Digits.find(text[index + i]);
      if (digit == std::string_view::npos) {
        return false;
      }
    }
    group = group << 6U | static_cast<std::uint32_t>(digit);
  }
  return true;
}

}  // namespace

std::string hexText(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text += kHexDigits[byteAt(bytes, i) >> 4U];
    text += kHexDigits[byteAt(bytes, i) & 15U];
  }
  return text;
}

bool readHex(std::string_view text, std::string& bytes) {
  bytes.clear();
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    if (!addHexByte(text, i, bytes)) {
      return false;
    }
  }
  return true;
}

std::string base64Text(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = bytes.size() - i < 3 ? bytes.size() - i : 3;
    std::uint32_t group = byteAt(bytes, i) << 16U;
    group |= count > 1 ? byteAt(bytes, i + 1) << 8U : 0;
    group |= count > 2 ? byteAt(bytes, i + 2) : 0;
    for (std::size_t digit = 0; digit < 4; ++digit) {
      text += digit <= count ? kBase64Digits[group >> (18 - 6 * digit) & 63U] : '=';
    }
  }
  return text;
}

bool readBase64(std::string_view text, std::string& bytes) {
  bytes.clear();
  if (text.size() % 4 != 0) {
    return false;
  }
  bytes.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    std::size_t digits = 4;
    if (i + 4 == text.size() && text[i + 3] == '=') {
      digits = text[i + 2] == '=' ? 2 : 3;
    }
    std::uint32_t group = 0;
    if (!base64Group(text, i, digits, group)) {
      return false;
    }
    // The bits behind the last byte are 0.
    if ((digits == 2 && (group & 0xffffU) != 0) || (digits == 3 && (group & 0xffU) != 0)) {
      return false;
    }
    for (std::size_t byte = 0; byte + 1 < digits; ++byte) {
      bytes += charOf(group >> (16 - 8 * byte) & 0xffU);
    }
  }
  return true;
}

std::string escapedText(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size();) {
    if (bytes[i] == '\\') {
      text += "\\\\";
      ++i;
      continue;
    }
    const std::size_t length = plainLength(bytes, i);
    if (length == 0) {
      text += "\\x";
      text += hexText(bytes.substr(i, 1));
      ++i;
      continue;
    }
    text += bytes.substr(i, length);
    i += length;
  }
  return text;
}

bool readEscaped(std::string_view text, std::string& bytes) {
  bytes.clear();
  bytes.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      bytes += text[i];
      continue;
    }
    if (i + 1 < text.size() && text[i + 1] == '\\') {
      bytes += '\\';
      i += 1;
    } else if (i + 1 < text.size() && text[i + 1] == 'x' && addHexByte(text, i + 2, bytes)) {
      i += 3;
    } else {
      return false;
    }
  }
  return true;
}

std::string listText(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) {
    text += escapedText(item);
    text += '\n';
  }
  return text;
}

bool readList(std::string_view text, std::vector<std::string>& items) {
  items.clear();
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos || !readEscaped(text.substr(0, end), items.emplace_back())) {
      return false;
    }
    text.remove_prefix(end + 1);
  }
  return true;
}

}  // namespace runelgw
