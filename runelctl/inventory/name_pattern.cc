// SPDX-License-Identifier: Apache-2.0
#include "inventory/name_pattern.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

namespace runelctl {
namespace {

static_assert(kMostRangeDigits == 9, "a number must fit into 32 bits");
constexpr std::size_t kMostBrackets = 8;
constexpr std::string_view kListBlanks = " \t\r";

runel::Error patternError(std::string_view text, const std::string& why) {
  return {runel::Kind::local, runel::Cause::other, "'" + std::string(text) + "': " + why};
}

runel::Error tooManyNames(std::string_view text) {
  return patternError(text, "more than " + std::to_string(kMostNames) + " names");
}

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(kListBlanks), text.size());
  const std::size_t end = text.find_last_not_of(kListBlanks);
  return text.substr(begin, end == std::string_view::npos ? 0 : end + 1 - begin);
}

bool parseNumber(std::string_view text, std::uint32_t& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return text.size() <= kMostRangeDigits && error == std::errc() && stop == end;
}

std::string padded(std::uint32_t number, std::size_t width) {
  const std::string digits = std::to_string(number);
  return digits.size() < width ? std::string(width - digits.size(), '0') + digits : digits;
}

// The place of the next comma of @p text from @p begin that is not in brackets, or its end.
std::size_t endOfElement(std::string_view text, std::size_t begin) {
  bool within = false;
  for (std::size_t i = begin; i < text.size(); ++i) {
    if (text[i] == '[' || text[i] == ']') {
      within = text[i] == '[';
    } else if (text[i] == ',' && !within) {
      return i;
    }
  }
  return text.size();
}

}  // namespace

runel::Result<NamePattern::Range> NamePattern::parseRange(std::string_view text) {
  const std::string_view all = trimmed(text);
  const std::size_t dash = all.find('-');
  const std::string_view first = all.substr(0, dash);
  const std::string_view last = dash == std::string_view::npos ? first : all.substr(dash + 1);
  Range range{0, 0, first.size() > 1 && first[0] == '0' ? first.size() : 0};
  if (!parseNumber(first, range.first) || !parseNumber(last, range.last)) {
    return patternError(all, "invalid range: expected numbers such as 7 or 01-50");
  }
  if (range.last < range.first) {
    return patternError(all, "descending range");
  }
  if (last.size() < first.size()) {
    return patternError(all, "the last number of the range has fewer digits than the first");
  }
  return range;
}

runel::Result<std::vector<NamePattern::Range>> NamePattern::parseRanges(std::string_view text) {
  std::vector<Range> ranges;
  while (true) {
    const std::size_t comma = text.find(',');
    const runel::Result<Range> range = parseRange(text.substr(0, comma));
    if (!range) {
      return range.error();
    }
    ranges.push_back(*range);
    if (comma == std::string_view::npos) {
      return ranges;
    }
    text.remove_prefix(comma + 1);
  }
}

runel::Result<NamePattern> NamePattern::parse(std::string_view text) {
  NamePattern pattern;
  std::string_view rest = text;
  if (text.size() > kLongestPattern) {
    return patternError(text.substr(0, 20), "name too long");
  }
  while (true) {
    const std::size_t open = rest.find('[');
    const std::string_view plain = rest.substr(0, open);
    if (plain.find(']') != std::string_view::npos) {
      return patternError(text, "']' without '['");
    }
    pattern.parts_.push_back({std::string(plain), {}});
    if (open == std::string_view::npos) {
      return pattern;
    }
    const std::size_t close = rest.find(']', open);
    if (close == std::string_view::npos) {
      return patternError(text, "'[' without ']'");
    }
    runel::Result<std::vector<Range>> ranges = parseRanges(rest.substr(open + 1, close - open - 1));
    if (!ranges) {
      return ranges.error();
    }
    std::size_t numbers = 0;
    for (const Range& range : *ranges) {
      numbers += range.last - range.first + 1;
    }
    // The product fits into 64 bits: size_ was checked before, and a range has fewer than 2^30
    // numbers.
    pattern.size_ *= numbers;
    if (pattern.size_ > kMostNames) {
      return tooManyNames(text);
    }
    if (pattern.parts_.size() > kMostBrackets) {
      return patternError(text, "too many ranges");
    }
    pattern.parts_.back().ranges = *std::move(ranges);
    rest.remove_prefix(close + 1);
  }
}

std::vector<std::string> NamePattern::names() const {
  std::vector<std::string> names{""};
  for (const Part& part : parts_) {
    std::vector<std::string> longer;
    for (const std::string& name : names) {
      const std::string begin = name + part.text;
      for (const Range& range : part.ranges) {
        for (std::uint32_t number = range.first; number <= range.last; ++number) {
          longer.push_back(begin + padded(number, range.width));
        }
      }
      if (part.ranges.empty()) {
        longer.push_back(begin);
      }
    }
    names = std::move(longer);
  }
  return names;
}

std::vector<std::string> splitList(std::string_view list) {
  std::vector<std::string> elements;
  std::size_t begin = 0;
  while (begin < list.size()) {
    const std::size_t end = endOfElement(list, begin);
    const std::string_view element = trimmed(list.substr(begin, end - begin));
    if (!element.empty()) {
      elements.emplace_back(element);
    }
    begin = end + 1;
  }
  return elements;
}

runel::Result<std::vector<std::string>> expandList(std::string_view list) {
  std::vector<std::string> names;
  for (const std::string& element : splitList(list)) {
    const runel::Result<NamePattern> pattern = NamePattern::parse(element);
    if (!pattern) {
      return pattern.error();
    }
    if (names.size() + pattern->size() > kMostNames) {
      return tooManyNames(list);
    }
    for (std::string& name : pattern->names()) {
      names.push_back(std::move(name));
    }
  }
  if (names.empty()) {
    return runel::Error(runel::Kind::local, runel::Cause::other, "empty device list");
  }
  return names;
}

}  // namespace runelctl
