// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/pattern.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

namespace runelgw {
namespace {

constexpr std::size_t kMostRangeDigits = 9;  // fits into 32 bits

bool parseDigits(std::string_view text, std::uint32_t& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return text.size() <= kMostRangeDigits && error == std::errc() && stop == end;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
  const std::size_t end = text.find_last_not_of(" \t");
  return text.substr(begin, end == std::string_view::npos ? 0 : end + 1 - begin);
}

std::size_t digitsOf(std::uint32_t number) {
  return std::to_string(number).size();
}

std::string padded(std::uint32_t number, std::size_t width) {
  const std::string digits = std::to_string(number);
  return digits.size() < width ? std::string(width - digits.size(), '0') + digits : digits;
}

// The end of the character of UTF-8 that begins at @p from; of a byte that begins none, the next
// one.
std::size_t afterCharacter(std::string_view text, std::size_t from) {
  const auto isContinuation = [&](std::size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80;
  };
  std::size_t end = from + 1;
  while (static_cast<unsigned char>(text[from]) >= 0xc0 && end < text.size() && end < from + 4 &&
         isContinuation(end)) {
    ++end;
  }
  return end;
}

}  // namespace

Word Word::from(std::size_t begin) const {
  const auto at = static_cast<std::ptrdiff_t>(std::min(begin, text.size()));
  return {text.substr(std::min(begin, text.size())),
          {quoted.begin() + at, quoted.end()},
          {places.begin() + at, places.end()},
          end};
}

bool Pattern::takeRange(std::string_view text, Token& token, std::string& why) {
  const std::string_view all = trimmed(text);
  const std::size_t dash = all.find('-');
  const std::string_view first = all.substr(0, dash);
  const std::string_view last = dash == std::string_view::npos ? first : all.substr(dash + 1);
  Range range{0, 0, first.size() > 1 && first[0] == '0' ? first.size() : 0};
  if (!parseDigits(first, range.first) || !parseDigits(last, range.last)) {
    why = "invalid range '" + std::string(all) + "': expected numbers such as 7 or 01-50";
    return false;
  }
  if (range.last < range.first || last.size() < first.size()) {
    why = "descending range '" + std::string(all) + "'";
    return false;
  }
  token.ranges.push_back(range);
  return true;
}

bool Pattern::takeNumbers(const Word& word, std::size_t& at, Token& token, Problem& problem) {
  const std::size_t open = at;
  std::size_t close = open + 1;
  while (close < word.text.size() && !word.is(close, ']')) {
    ++close;
  }
  if (close == word.text.size()) {
    problem = {word.place(open), "'[' without ']'"};
    return false;
  }
  token.kind = Kind::numbers;
  std::size_t begin = open + 1;
  while (begin <= close) {
    const std::size_t end = std::min(word.text.find(',', begin), close);
    problem.place = word.place(begin);
    if (!takeRange(std::string_view(word.text).substr(begin, end - begin), token, problem.text)) {
      return false;
    }
    begin = end + 1;
  }
  at = close;
  return true;
}

std::optional<Pattern> Pattern::parse(const Word& word, Problem& problem) {
  Pattern pattern;
  pattern.text_ = word.text;
  bool literal = true;
  for (std::size_t at = 0; at < word.text.size(); ++at) {
    Token token;
    token.byte = word.text[at];
    if (word.is(at, '*')) {
      token.kind = Kind::any;
    } else if (word.is(at, '?')) {
      token.kind = Kind::one;
    } else if (word.is(at, '[')) {
      if (!takeNumbers(word, at, token, problem)) {
        return std::nullopt;
      }
    } else if (word.is(at, ']')) {
      problem = {word.place(at), "']' without '['"};
      return std::nullopt;
    }
    literal = literal && token.kind == Kind::byte;
    pattern.tokens_.push_back(std::move(token));
  }
  if (literal) {
    pattern.tokens_.clear();
  } else {
    pattern.text_.clear();
  }
  return pattern;
}

void Pattern::stepNumbers(const Token& token, std::string_view text, std::size_t from,
                          std::vector<bool>& reached) {
  std::uint32_t number = 0;
  for (std::size_t end = from + 1; end <= text.size() && end - from <= kMostRangeDigits; ++end) {
    const char digit = text[end - 1];
    if (digit < '0' || digit > '9') {
      return;
    }
    number = number * 10 + static_cast<std::uint32_t>(digit - '0');
    for (const Range& range : token.ranges) {
      if (number >= range.first && number <= range.last &&
          end - from == std::max(range.width, digitsOf(number))) {
        reached[end] = true;
      }
    }
  }
}

// Marks where the rest of @p text may begin, if what is before @p from has matched.
void Pattern::step(const Token& token, std::string_view text, std::size_t from,
                   std::vector<bool>& reached) {
  switch (token.kind) {
    case Kind::byte:
      if (from < text.size() && text[from] == token.byte) {
        reached[from + 1] = true;
      }
      return;
    case Kind::one:
      if (from < text.size()) {
        reached[afterCharacter(text, from)] = true;
      }
      return;
    case Kind::any:
      std::fill(reached.begin() + static_cast<std::ptrdiff_t>(from), reached.end(), true);
      return;
    case Kind::numbers:
      stepNumbers(token, text, from, reached);
      return;
  }
}

bool Pattern::matches(std::string_view text) const {
  if (isLiteral()) {
    return text == text_;
  }
  // Most names differ before the first wildcard.
  std::size_t same = 0;
  while (same < tokens_.size() && tokens_[same].kind == Kind::byte) {
    if (same >= text.size() || text[same] != tokens_[same].byte) {
      return false;
    }
    ++same;
  }
  text.remove_prefix(same);
  std::vector<bool> here(text.size() + 1);
  here[0] = true;
  for (auto next = tokens_.begin() + static_cast<std::ptrdiff_t>(same); next != tokens_.end();
       ++next) {
    const Token& token = *next;
    std::vector<bool> reached(text.size() + 1);
    for (std::size_t from = 0; from <= text.size(); ++from) {
      if (here[from]) {
        step(token, text, from, reached);
        if (token.kind == Kind::any) {
          break;  // the first one reaches all
        }
      }
    }
    here = std::move(reached);
  }
  return here[text.size()];
}

std::optional<std::vector<std::string>> Pattern::all(std::size_t most) const {
  std::vector<std::string> names{isLiteral() ? text_ : std::string()};
  for (const Token& token : tokens_) {
    if (token.kind == Kind::one || token.kind == Kind::any) {
      return std::nullopt;
    }
    if (token.kind == Kind::byte) {
      for (std::string& name : names) {
        name += token.byte;
      }
      continue;
    }
    std::vector<std::string> longer;
    for (const std::string& name : names) {
      for (const Range& range : token.ranges) {
        if (range.last - range.first >= most ||
            longer.size() + (range.last - range.first) >= most) {
          return std::nullopt;
        }
        for (std::uint32_t number = range.first; number <= range.last; ++number) {
          longer.push_back(name + padded(number, range.width));
        }
      }
    }
    names = std::move(longer);
  }
  return names;
}

}  // namespace runelgw
