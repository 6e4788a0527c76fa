// SPDX-License-Identifier: Apache-2.0
#include "client/core/host_text.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace runel {
namespace {

constexpr std::size_t kMaxHostName = 253;  // RFC 1035

}  // namespace

bool isHostText(const std::string& host) {
  const auto plain = [](char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
           (byte >= 'A' && byte <= 'Z') || byte == '.' || byte == '-' || byte == '_';
  };
  return !host.empty() && host.size() <= kMaxHostName &&
         std::all_of(host.begin(), host.end(), plain);
}

bool parsePort(const std::string& digits, std::uint16_t& port) {
  const char* end = digits.data() + digits.size();
  std::uint16_t value = 0;
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || stop != end || value == 0) {
    return false;
  }
  port = value;
  return true;
}

}  // namespace runel
