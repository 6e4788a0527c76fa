// SPDX-License-Identifier: Apache-2.0
// Checks of texts that callers and devices choose.
#ifndef RUNELGW_FLEET_TEXT_H_
#define RUNELGW_FLEET_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <runel/result.h>

namespace runelgw {

/// The place of the first byte that is not part of valid UTF-8, or is a control character other
/// than those in @p allowed. npos if all is valid.
[[nodiscard]] std::size_t firstUnprintable(std::string_view text, std::string_view allowed = {});

/// The first line of @p text, at most @p most bytes, with '?' for what is not printable ASCII.
[[nodiscard]] std::string printable(std::string_view text, std::size_t most);

/// The kind of a device, as it may be kept and shown.
[[nodiscard]] std::string deviceTypeOf(std::string_view answer);

/// An IPv4 network. A single address has 32 bits.
struct Network {
  std::uint32_t address = 0;  ///< in host byte order, the host bits are 0
  unsigned bits = 32;

  /// "192.0.2.1" or "192.0.2.0/24". Without a value for other text.
  [[nodiscard]] static std::optional<Network> parse(const std::string& text);
  [[nodiscard]] bool contains(std::uint32_t other) const;
};

/// The IPv4 address @p text in host byte order.
[[nodiscard]] std::optional<std::uint32_t> parseAddress(const std::string& text);

/// An error of `Kind::local` with this sentence.
[[nodiscard]] runel::Error failure(std::string text);

}  // namespace runelgw

#endif  // RUNELGW_FLEET_TEXT_H_
