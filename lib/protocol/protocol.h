// SPDX-License-Identifier: Apache-2.0
// The numbers of the protocol: ports, marker bytes, limits.
#ifndef ZELL_PROTOCOL_PROTOCOL_H_
#define ZELL_PROTOCOL_PROTOCOL_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zell {

/// TCP port on which the daemon listens, on all addresses of the device.
constexpr std::uint16_t kDevicePort = 5111;
/// TCP port on which the master listens.
constexpr std::uint16_t kMasterPort = 5112;

/// First byte of a frame, followed by the decimal digits of the payload's length.
constexpr char kFrameStart = '\x01';
/// Ends the digits. The payload follows.
constexpr char kCountEnd = '\x02';
/// First byte of an agent's clause.
constexpr char kClauseStart = '<';

/// The longest payload of a frame, in bytes, in both directions.
constexpr std::size_t kMaxFramePayload = 268435456;
/// Most digits of a payload's length.
constexpr std::size_t kMaxCountDigits = 9;
/// The longest text of a reply, in bytes. A record with such a text fits a frame.
constexpr std::size_t kMaxReplyText = kMaxFramePayload - 4096;
/// The limit of the stored output of a program, in bytes. The device discards the rest.
constexpr std::size_t kMaxProgramOutput = std::size_t{16} * 1024 * 1024;

/// Whether @p text contains the decimal digits of @p number. Checks texts at compile time.
constexpr bool contains(std::string_view text, std::size_t number) {
  char digits[20] = {};
  std::size_t first = sizeof digits;
  do {
    digits[--first] = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  return text.find(std::string_view(digits + first, sizeof digits - first)) !=
         std::string_view::npos;
}

}  // namespace zell

#endif  // ZELL_PROTOCOL_PROTOCOL_H_
