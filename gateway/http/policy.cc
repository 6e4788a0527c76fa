// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/policy.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>

#include "gateway/http/head_check.h"

namespace runelgw {
namespace {

std::string inLowerCase(std::string_view text) {
  std::string lower(text);
  for (char& byte : lower) {
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte - 'A' + 'a');
    }
  }
  return lower;
}

bool isHostByte(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') || byte == '-' ||
         byte == '.' || byte == '_';
}

// The shortest form of an IPv6 address, so that equal ones have equal texts.
std::optional<std::string> canonicalIpv6(const std::string& text) {
  in6_addr address{};
  char buffer[INET6_ADDRSTRLEN] = {};
  if (inet_pton(AF_INET6, text.c_str(), &address) != 1) {
    return std::nullopt;
  }
  return inet_ntop(AF_INET6, &address, buffer, sizeof buffer);
}

std::optional<std::uint16_t> portOf(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return port;
}

bool isSafe(const std::string& method) {
  return method == "GET" || method == "HEAD" || method == "OPTIONS";
}

}  // namespace

std::optional<HostAndPort> HostAndPort::parse(std::string_view text) {
  HostAndPort parts;
  std::string_view rest;
  if (!text.empty() && text[0] == '[') {
    const std::size_t close = text.find(']');
    const auto address =
        canonicalIpv6(std::string(text.substr(1, std::min(close, text.size()) - 1)));
    if (close == std::string_view::npos || !address) {
      return std::nullopt;
    }
    parts.host = *address;
    rest = text.substr(close + 1);
  } else {
    const std::size_t colon = std::min(text.find(':'), text.size());
    parts.host = inLowerCase(text.substr(0, colon));
    rest = text.substr(colon);
    if (parts.host.empty() || !std::all_of(parts.host.begin(), parts.host.end(), isHostByte)) {
      return std::nullopt;
    }
  }
  if (!rest.empty()) {
    parts.port = rest[0] == ':' ? portOf(rest.substr(1)) : std::nullopt;
    if (!parts.port) {
      return std::nullopt;
    }
  }
  return parts;
}

bool isLoopback(const std::string& address) {
  in_addr four{};
  if (inet_pton(AF_INET, address.c_str(), &four) == 1) {
    return ntohl(four.s_addr) >> 24U == 127;
  }
  in6_addr six{};
  return inet_pton(AF_INET6, address.c_str(), &six) == 1 &&
         std::memcmp(&six, &in6addr_loopback, sizeof six) == 0;
}

HttpPolicy::HttpPolicy(const HttpSettings& settings) : sessionCookie_(settings.sessionCookie) {
  for (const std::string& name : settings.names) {
    names_.push_back(canonicalIpv6(name).value_or(inLowerCase(name)));
  }
  for (const std::string& origin : settings.origins) {
    origins_.push_back(inLowerCase(origin));
  }
}

bool HttpPolicy::isOurs(const std::string& host, const std::string& local) const {
  const auto asked = HostAndPort::parse(host);
  if (!asked) {
    return false;
  }
  // No name server can make a numeric address lead elsewhere.
  if (asked->host == local || (isLoopback(local) && asked->host == "localhost")) {
    return true;
  }
  return std::any_of(names_.begin(), names_.end(), [&](const std::string& name) {
    const auto ours = HostAndPort::parse(
        name.find(':') != name.rfind(':') && name[0] != '[' ? '[' + name + ']' : name);
    return ours && ours->host == asked->host && (!ours->port || ours->port == asked->port);
  });
}

bool HttpPolicy::mayCall(const std::string& origin, const HttpRequest& request) const {
  const std::string lower = inLowerCase(origin);
  if (std::find(origins_.begin(), origins_.end(), lower) != origins_.end()) {
    return true;
  }
  const std::string_view scheme = request.tls ? "https://" : "http://";
  const std::uint16_t usual = request.tls ? 443 : 80;
  if (lower.compare(0, scheme.size(), scheme) != 0) {
    return false;
  }
  const auto caller = HostAndPort::parse(std::string_view(lower).substr(scheme.size()));
  const auto host = HostAndPort::parse(request.host);
  return caller && host && caller->host == host->host &&
         caller->port.value_or(usual) == host->port.value_or(usual);
}

std::optional<HttpRefusal> HttpPolicy::refusal(const HttpRequest& request,
                                               const std::string& local) const {
  if (!HostAndPort::parse(request.host)) {
    return HttpRefusal{400, "Host is malformed."};
  }
  if (!isOurs(request.host, local)) {
    return HttpRefusal{421, "This server does not have the name in Host."};
  }
  if (isSafe(request.method) && !request.wantsWebSocket()) {
    return std::nullopt;
  }
  const auto origins = std::count_if(request.headers.begin(), request.headers.end(),
                                     [](const auto& field) { return field.first == "origin"; });
  if (origins == 0) {  // a program: a browser sends it
    const bool browser = !sessionCookie_.empty() && request.cookie(sessionCookie_);
    return browser
               ? std::optional(HttpRefusal{403, "A request with a session cookie needs an Origin."})
               : std::nullopt;
  }
  if (origins > 1 || !mayCall(*request.header("origin"), request)) {
    return HttpRefusal{403, "Pages of another origin may not do this."};
  }
  return std::nullopt;
}

}  // namespace runelgw
