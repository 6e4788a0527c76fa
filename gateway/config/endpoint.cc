// SPDX-License-Identifier: Apache-2.0
#include "gateway/config/endpoint.h"

#include <algorithm>
#include <cstddef>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace runelgw {
namespace {

constexpr std::size_t kMostPortDigits = 5;
constexpr unsigned long kLastPort = 65535;

std::optional<std::uint16_t> parsePort(const std::string& text) {
  const bool digits =
      !text.empty() && text.size() <= kMostPortDigits &&
      std::all_of(text.begin(), text.end(), [](char byte) { return byte >= '0' && byte <= '9'; });
  if (!digits || std::stoul(text) > kLastPort) {
    return std::nullopt;
  }
  return static_cast<std::uint16_t>(std::stoul(text));
}

bool isAddress(int family, const std::string& text) {
  in6_addr address{};
  // inet_pton would stop at a zero byte.
  return text.find('\0') == std::string::npos && inet_pton(family, text.c_str(), &address) == 1;
}

}  // namespace

std::optional<Endpoint> parseEndpoint(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    return std::nullopt;
  }
  std::string host = text.substr(0, colon);
  int family = AF_INET;
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    family = AF_INET6;
    host = host.substr(1, host.size() - 2);
  }
  const std::optional<std::uint16_t> port = parsePort(text.substr(colon + 1));
  if (!port || !isAddress(family, host)) {
    return std::nullopt;
  }
  return Endpoint{host, *port};
}

std::string textOf(const Endpoint& endpoint) {
  const std::string port = ":" + std::to_string(endpoint.port);
  return isIpv6(endpoint) ? "[" + endpoint.host + "]" + port : endpoint.host + port;
}

bool isIpv6(const Endpoint& endpoint) {
  return endpoint.host.find(':') != std::string::npos;
}

bool isLoopback(const Endpoint& endpoint) {
  if (!isIpv6(endpoint)) {
    return endpoint.host.compare(0, 4, "127.") == 0;
  }
  in6_addr address{};
  return inet_pton(AF_INET6, endpoint.host.c_str(), &address) == 1 &&
         IN6_IS_ADDR_LOOPBACK(&address);
}

}  // namespace runelgw
