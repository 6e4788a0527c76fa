// SPDX-License-Identifier: Apache-2.0
// The header of a proxy. The way in which the bytes arrive must not matter, no byte behind the
// header is asked for, and a name needs a verified certificate.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "client/master/proxy_header.h"
#include "fuzz.h"

namespace {

using runel::ProxyHeader;
using zell::fuzz::require;

struct Parsed {
  ProxyHeader header;
  std::size_t used = 0;
};

Parsed parse(std::string_view bytes, std::size_t cut) {
  Parsed parsed;
  while (parsed.used < bytes.size() && parsed.header.missing() > 0) {
    const std::size_t part = std::min({cut, parsed.header.missing(), bytes.size() - parsed.used});
    parsed.header.add(bytes.substr(parsed.used, part));
    parsed.used += part;
  }
  return parsed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const Parsed whole = parse(bytes, size);
  const Parsed single = parse(bytes, 1);
  require(whole.header.state() == single.header.state());
  require(whole.header.verifiedName() == single.header.verifiedName());
  require(whole.used <= ProxyHeader::kLongest);
  require(whole.header.state() == ProxyHeader::State::invalid || whole.used == single.used);
  const bool proxied = whole.header.state() == ProxyHeader::State::proxied;
  require(!proxied || (whole.header.address() == single.header.address() &&
                       whole.header.port() == single.header.port()));
  require(proxied || whole.header.verifiedName().empty());
  require((whole.header.state() == ProxyHeader::State::invalid) != whole.header.problem().empty());
  require((whole.header.state() == ProxyHeader::State::incomplete) == (whole.header.missing() > 0));
  return 0;
}
