// SPDX-License-Identifier: Apache-2.0
#include "text/stray_character.h"

#include <algorithm>
#include <cstddef>

namespace zell {
namespace {

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

// The end of the string that begins with the quote at @p begin. An unfinished one ends with its
// line.
std::size_t endOfString(std::string_view text, std::size_t begin) {
  const char quote = text[begin];
  const bool hasLines = std::min(text.find_first_not_of(quote, begin), text.size()) - begin >= 3;
  const std::string_view end = text.substr(begin, hasLines ? 3 : 1);
  std::size_t at = begin + end.size();
  while (at < text.size() && (hasLines || text[at] != '\n')) {
    if (text.substr(at, end.size()) == end) {
      at += end.size();
      // The content may end with quotes.
      return hasLines ? std::min(text.find_first_not_of(quote, at), text.size()) : at;
    }
    at += quote == '"' && text[at] == '\\' ? 2 : 1;
  }
  return std::min(at, text.size());
}

}  // namespace

std::optional<int> lineOfStrayCharacter(std::string_view text) {
  int line = 1;
  std::size_t at =
      text.substr(0, kByteOrderMark.size()) == kByteOrderMark ? kByteOrderMark.size() : 0;
  while (at < text.size()) {
    const std::size_t begin = at;
    if (text[at] == '#') {
      at = std::min(text.find('\n', at), text.size());
    } else if (text[at] == '"' || text[at] == '\'') {
      at = endOfString(text, at);
    } else if (static_cast<unsigned char>(text[at]) >= 0x80) {
      return line;
    } else {
      ++at;
    }
    line += static_cast<int>(std::count(text.begin() + begin, text.begin() + at, '\n'));
  }
  return std::nullopt;
}

}  // namespace zell
