// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/text.h"

#include <utility>

#include <arpa/inet.h>

#include "text/utf8.h"

namespace runelgw {
namespace {

bool isControl(std::uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0);
}

}  // namespace

std::size_t firstUnprintable(std::string_view text, std::string_view allowed) {
  std::size_t at = 0;
  while (at < text.size()) {
    std::uint32_t code = 0;
    const std::size_t length = zell::utf8Sequence(text.substr(at), code);
    const bool control = isControl(code) && allowed.find(text[at]) == std::string_view::npos;
    if (length == 0 || control) {
      return at;
    }
    at += length;
  }
  return std::string_view::npos;
}

std::string printable(std::string_view text, std::size_t most) {
  std::string line(text.substr(0, text.find('\n')).substr(0, most));
  for (char& byte : line) {
    byte = byte >= ' ' && byte <= '~' ? byte : '?';
  }
  return line;
}

std::string deviceTypeOf(std::string_view answer) {
  constexpr std::size_t kLongest = 32;
  return printable(answer, kLongest);
}

std::optional<std::uint32_t> parseAddress(const std::string& text) {
  in_addr address{};
  if (text.find('\0') != std::string::npos || inet_pton(AF_INET, text.c_str(), &address) != 1) {
    return std::nullopt;
  }
  return ntohl(address.s_addr);
}

std::optional<Network> Network::parse(const std::string& text) {
  const std::size_t slash = text.find('/');
  const auto address = parseAddress(text.substr(0, slash));
  if (!address) {
    return std::nullopt;
  }
  if (slash == std::string::npos) {
    return Network{*address, 32};
  }
  const std::string digits = text.substr(slash + 1);
  if (digits.empty() || digits.size() > 2 ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const auto bits = static_cast<unsigned>(std::stoul(digits));
  if (bits > 32) {
    return std::nullopt;
  }
  const std::uint32_t mask = bits == 0 ? 0 : ~std::uint32_t{0} << (32 - bits);
  return Network{*address & mask, bits};
}

bool Network::contains(std::uint32_t other) const {
  const std::uint32_t mask = bits == 0 ? 0 : ~std::uint32_t{0} << (32 - bits);
  return (other & mask) == address;
}

runel::Error failure(std::string text) {
  return {runel::Kind::local, runel::Cause::other, std::move(text)};
}

}  // namespace runelgw
