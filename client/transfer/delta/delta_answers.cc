// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/delta/delta_answers.h"

#include <charconv>

namespace runel {
namespace {

constexpr std::uint64_t kKibibyte = 1024;
constexpr std::uint64_t kMostKibibytes = UINT64_MAX / kKibibyte;

// Takes the text until @p end, or all of it.
std::string_view takeUntil(std::string_view& text, char end) {
  const std::size_t length = text.find(end);
  const std::string_view taken = text.substr(0, length);
  text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
  return taken;
}

template <typename Number>
std::optional<Number> wholeNumber(std::string_view text) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = error == std::errc() && end == text.data() + text.size();
  return whole ? std::make_optional(number) : std::nullopt;
}

std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  while (!line.empty()) {
    const std::string_view word = takeUntil(line, ' ');
    if (!word.empty()) {
      words.push_back(word);
    }
  }
  return words;
}

// The number before the percentage of the used space. Names with spaces may precede and follow it.
std::optional<std::uint64_t> freeBytesIn(std::string_view line) {
  const std::vector<std::string_view> words = wordsOf(line);
  for (std::size_t i = 4; i < words.size(); ++i) {
    const auto free = wholeNumber<std::uint64_t>(words[i - 1]);
    if (words[i].back() == '%' && free && *free <= kMostKibibytes) {
      return *free * kKibibyte;
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<DeltaTools> parseTools(std::string_view text) {
  const std::string_view first = takeUntil(text, '\n');
  const std::vector<std::string_view> words = wordsOf(first);
  if (words.size() == 2 && words[0] == "missing") {
    return DeltaTools{std::string(words[1]), std::nullopt};
  }
  if (first != "complete") {
    return std::nullopt;
  }
  (void)takeUntil(text, '\n');  // the heading of df
  return DeltaTools{"", freeBytesIn(takeUntil(text, '\n'))};
}

std::optional<std::vector<std::uint32_t>> parseSums(std::string_view text, std::uint64_t count,
                                                    std::size_t length) {
  std::vector<std::uint32_t> sums;
  while (!text.empty() && sums.size() < count) {
    const std::vector<std::string_view> words = wordsOf(takeUntil(text, '\n'));
    const auto sum = words.size() == 2 ? wholeNumber<std::uint32_t>(words[0]) : std::nullopt;
    if (!sum || wholeNumber<std::uint64_t>(words[1]) != length) {
      return std::nullopt;
    }
    sums.push_back(*sum);
  }
  return text.empty() && sums.size() == count ? std::make_optional(std::move(sums)) : std::nullopt;
}

}  // namespace runel
