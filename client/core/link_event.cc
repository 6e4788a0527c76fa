// SPDX-License-Identifier: Apache-2.0
#include "client/core/link_event.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace runel {
namespace {

constexpr char kEventStart = '\x05';
constexpr std::string_view kErrorLine = "error ";

// Removes the next number and the blank after it from @p text.
std::optional<int> takeNumber(std::string_view& text) {
  int number = 0;
  const auto [end, wrong] = std::from_chars(text.data(), text.data() + text.size(), number);
  const auto length = static_cast<std::size_t>(end - text.data());
  if (wrong != std::errc() || length == text.size() || *end != ' ') {
    return std::nullopt;
  }
  text.remove_prefix(length + 1);
  return number;
}

bool within(const std::optional<int>& number, int last) {
  return number && *number >= 0 && *number <= last;
}

// "KIND CAUSE OUTCOME NUMBER TEXT"
std::string describe(const Error& error) {
  std::string line;
  for (const int number : {static_cast<int>(error.kind()), static_cast<int>(error.cause()),
                           static_cast<int>(error.outcome()), error.number()}) {
    line += std::to_string(number) + " ";
  }
  std::string text = error.text();
  std::replace(text.begin(), text.end(), '\n', ' ');
  return line + text;
}

std::optional<Error> parseError(std::string_view line) {
  const std::optional<int> kind = takeNumber(line);
  const std::optional<int> cause = takeNumber(line);
  const std::optional<int> outcome = takeNumber(line);
  const std::optional<int> number = takeNumber(line);
  if (!within(kind, static_cast<int>(Kind::timeout)) ||
      !within(cause, static_cast<int>(Cause::outside)) ||
      !within(outcome, static_cast<int>(Outcome::unknown)) || !number) {
    return std::nullopt;
  }
  return Error(static_cast<Kind>(*kind), static_cast<Cause>(*cause), std::string(line), *number)
      .with(static_cast<Outcome>(*outcome));
}

}  // namespace

std::string LinkEvent::payload() const {
  return kEventStart + std::to_string(static_cast<int>(about)) + " " + describe(error);
}

std::optional<LinkEvent> LinkEvent::parse(std::string_view payload) {
  if (payload.empty() || payload.front() != kEventStart) {
    return std::nullopt;
  }
  payload.remove_prefix(1);
  const std::optional<int> about = takeNumber(payload);
  std::optional<Error> error = parseError(payload);
  if (!within(about, static_cast<int>(About::progress)) || !error) {
    return std::nullopt;
  }
  return LinkEvent{static_cast<About>(*about), *std::move(error)};
}

bool LinkEvent::mayBegin(char byte) {
  return byte == kEventStart;
}

std::string errorLine(const Error& error) {
  return std::string(kErrorLine) + describe(error);
}

std::optional<Error> parseErrorLine(std::string_view line) {
  if (line.compare(0, kErrorLine.size(), kErrorLine) != 0) {
    return std::nullopt;
  }
  return parseError(line.substr(kErrorLine.size()));
}

}  // namespace runel
