// SPDX-License-Identifier: Apache-2.0
// Where the gateway is, and how this user is known to it.
#ifndef RUNELCTL_GATEWAY_GATEWAY_SETTINGS_H_
#define RUNELCTL_GATEWAY_GATEWAY_SETTINGS_H_

#include <cstdint>
#include <string>

#include <runel/request.h>
#include <runel/result.h>

namespace runelctl {

/// The address of a gateway, such as https://fleet.example:5180.
struct GatewayUrl {
  bool tls = true;
  std::string host;  ///< a name or an address, without brackets
  std::uint16_t port = 443;

  /// HOST[:PORT] as a Host header has it: without the usual port of the scheme.
  [[nodiscard]] std::string authority() const;
  /// With the scheme.
  [[nodiscard]] std::string text() const;

  /// Fails with `Kind::local`. http is for loopback addresses: the token would be readable on the
  /// way.
  [[nodiscard]] static runel::Result<GatewayUrl> parse(const std::string& text);
};

/// The options about a gateway, as they were given. Empty ones have their defaults.
struct GatewayOptions {
  std::string url;
  std::string tokenFile;
  std::string caFile;           ///< PEM; who signs the gateway's certificate
  std::string certificateFile;  ///< PEM; of this client
  std::string keyFile;          ///< PEM; by default in `certificateFile`

  [[nodiscard]] bool operator==(const GatewayOptions& other) const {
    return url == other.url && tokenFile == other.tokenFile && caFile == other.caFile &&
           certificateFile == other.certificateFile && keyFile == other.keyFile;
  }
};

/// What is needed to connect.
struct GatewaySettings {
  GatewayUrl url;
  std::string token;  ///< may be empty with a client certificate
  std::string caFile;
  std::string certificateFile;
  std::string keyFile;
  runel::Milliseconds connectTimeout{10000};
  runel::Milliseconds ioTimeout{30000};
};

/// Checks @p options and reads the token: from the given file, from RUNELCTL_TOKEN, or from
/// runelctl/token in XDG_CONFIG_HOME or ~/.config. Fails with `Kind::local`.
[[nodiscard]] runel::Result<GatewaySettings> gatewaySettings(const GatewayOptions& options);

/// Reads a token from the file @p path, which must belong to this user or root and be accessible to
/// no other user.
[[nodiscard]] runel::Result<std::string> readToken(const std::string& path);

}  // namespace runelctl

#endif  // RUNELCTL_GATEWAY_GATEWAY_SETTINGS_H_
