// SPDX-License-Identifier: Apache-2.0
// Who may be meant by a request, and which page may have sent it.
#ifndef RUNELGW_HTTP_POLICY_H_
#define RUNELGW_HTTP_POLICY_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/http/http.h"
#include "gateway/http/refusal.h"

namespace runelgw {

/// The checks that keep pages of others from using a browser's access to this server. Host: a page
/// whose own name was made to resolve to this server's address. Origin: a page that sends requests
/// across sites.
class HttpPolicy {
 public:
  explicit HttpPolicy(const HttpSettings& settings);

  /// Why @p request, which arrived at the numeric address @p local, is refused.
  [[nodiscard]] std::optional<HttpRefusal> refusal(const HttpRequest& request,
                                                   const std::string& local) const;

 private:
  [[nodiscard]] bool isOurs(const std::string& host, const std::string& local) const;
  [[nodiscard]] bool mayCall(const std::string& origin, const HttpRequest& request) const;

  std::vector<std::string> names_;    // in lower case
  std::vector<std::string> origins_;  // in lower case
  std::string sessionCookie_;
};

/// A Host header or the end of an origin, in parts.
struct HostAndPort {
  std::string host;  ///< in lower case, an IPv6 address without brackets
  std::optional<std::uint16_t> port;

  [[nodiscard]] static std::optional<HostAndPort> parse(std::string_view text);
};

/// Whether @p address, in numbers, reaches only programs of this machine.
[[nodiscard]] bool isLoopback(const std::string& address);

}  // namespace runelgw

#endif  // RUNELGW_HTTP_POLICY_H_
