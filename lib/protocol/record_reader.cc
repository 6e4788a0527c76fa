// SPDX-License-Identifier: Apache-2.0
#include "protocol/record_reader.h"

#include <charconv>
#include <cstddef>
#include <system_error>

namespace zell {

bool RecordReader::skip(char expected) {
  if (rest_.empty() || rest_.front() != expected) {
    return false;
  }
  rest_.remove_prefix(1);
  return true;
}

// from_chars accepts neither spaces nor '+'. It would accept leading zeros and "-0".
bool RecordReader::takeNumber(std::int32_t& value) {
  const char* begin = rest_.data();
  const char* end = begin + rest_.size();
  const auto [next, error] = std::from_chars(begin, end, value);
  if (error != std::errc()) {
    return false;
  }
  const bool negative = *begin == '-';
  const char first = negative ? begin[1] : *begin;
  const auto length = static_cast<std::size_t>(next - begin);
  if (first == '0' && length > 1) {
    return false;
  }
  rest_.remove_prefix(length);
  return true;
}

bool RecordReader::readName() {
  if (rest_.substr(0, kRecordName.size()) != kRecordName) {
    return false;
  }
  rest_.remove_prefix(kRecordName.size());
  return true;
}

bool RecordReader::readNumber(std::int32_t& value) {
  return skip(' ') && !rest_.empty() && rest_.front() != '-' && takeNumber(value);
}

bool RecordReader::readSigned(std::int32_t& value) {
  return skip(' ') && takeNumber(value);
}

bool RecordReader::readString(std::string_view& bytes) {
  std::int32_t length = 0;
  if (!readNumber(length) || !skip(':') || static_cast<std::size_t>(length) > rest_.size()) {
    return false;
  }
  bytes = rest_.substr(0, static_cast<std::size_t>(length));
  rest_.remove_prefix(bytes.size());
  return true;
}

}  // namespace zell
