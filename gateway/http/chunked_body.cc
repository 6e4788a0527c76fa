// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/chunked_body.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "gateway/http/head_check.h"

namespace runelgw {
namespace {

constexpr std::size_t kLongestLine = 1024;
constexpr std::size_t kMostTrailerBytes = 8192;
constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";

}  // namespace

ChunkedBody::State ChunkedBody::read(std::string_view& input, std::string& body) {
  while (state_ == State::reading && !input.empty() && step(input, body)) {
  }
  return state_;
}

// Returns false when the input ends.
bool ChunkedBody::step(std::string_view& input, std::string& body) {
  if (part_ == Part::data) {
    return readData(input, body);
  }
  if (!readLine(input)) {
    return false;
  }
  takeLine();
  line_.clear();
  return true;
}

bool ChunkedBody::readData(std::string_view& input, std::string& body) {
  const std::size_t count = std::min(missing_, input.size());
  body.append(input.substr(0, count));
  input.remove_prefix(count);
  missing_ -= count;
  if (missing_ == 0) {
    part_ = Part::dataEnd;
  }
  return missing_ == 0;
}

// A line without its end is in line_ when it returns true.
bool ChunkedBody::readLine(std::string_view& input) {
  const std::size_t end = std::min(input.find('\n'), input.size());
  const bool whole = end < input.size();
  if (line_.size() + end > kLongestLine) {
    fail(State::malformed);
    return false;
  }
  line_.append(input.substr(0, end));
  input.remove_prefix(whole ? end + 1 : end);
  if (whole && (line_.empty() || line_.back() != '\r')) {
    fail(State::malformed);
    return false;
  }
  if (whole) {
    line_.pop_back();
  }
  return whole;
}

void ChunkedBody::takeLine() {
  if (!std::all_of(line_.begin(), line_.end(), isValueByte)) {
    fail(State::malformed);
  } else if (part_ == Part::size) {
    takeSize();
  } else if (part_ == Part::trailers) {
    takeTrailer();
  } else if (line_.empty()) {
    part_ = Part::size;
  } else {
    fail(State::malformed);
  }
}

void ChunkedBody::takeSize() {
  const std::size_t digits = std::min(line_.find_first_not_of(kHexDigits), line_.size());
  const std::string_view rest = std::string_view(line_).substr(digits);
  std::uint64_t size = 0;
  const auto [end, error] = std::from_chars(line_.data(), line_.data() + digits, size, 16);
  if (digits == 0 || error != std::errc() || (!rest.empty() && rest[0] != ';')) {
    fail(State::malformed);
  } else if (size > left_) {
    fail(State::tooLong);
  } else if (size == 0) {
    part_ = Part::trailers;
  } else {
    missing_ = static_cast<std::size_t>(size);
    left_ -= missing_;
    part_ = Part::data;
  }
}

void ChunkedBody::takeTrailer() {
  if (line_.empty()) {
    state_ = State::complete;
    return;
  }
  trailerBytes_ += line_.size();
  const std::string_view name = std::string_view(line_).substr(0, line_.find(':'));
  if (trailerBytes_ > kMostTrailerBytes || name.empty() || name.size() == line_.size() ||
      !std::all_of(name.begin(), name.end(), isTokenByte) ||
      equalIgnoringCase(name, "content-length") || equalIgnoringCase(name, "transfer-encoding") ||
      equalIgnoringCase(name, "host")) {
    fail(State::malformed);
  }
}

}  // namespace runelgw
