// SPDX-License-Identifier: Apache-2.0
// Host names and ports as texts.
#ifndef RUNEL_CORE_HOST_TEXT_H_
#define RUNEL_CORE_HOST_TEXT_H_

#include <cstdint>
#include <string>

namespace runel {

/// True for a text that may be an IPv4 address or a host name.
[[nodiscard]] bool isHostText(const std::string& host);

/// Parses 1 to 65535. Leaves @p port unchanged for other text.
[[nodiscard]] bool parsePort(const std::string& digits, std::uint16_t& port);

}  // namespace runel

#endif  // RUNEL_CORE_HOST_TEXT_H_
