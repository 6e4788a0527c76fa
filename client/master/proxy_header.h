// SPDX-License-Identifier: Apache-2.0
// The header with which a proxy begins each connection that it passes on.
#ifndef RUNEL_MASTER_PROXY_HEADER_H_
#define RUNEL_MASTER_PROXY_HEADER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace runel {

/// Parses a header of the PROXY protocol, version 2. Performs no I/O. Its user reads exactly
/// `missing` bytes at most, so that nothing of what follows is taken.
class ProxyHeader {
 public:
  enum class State {
    incomplete,
    proxied,  ///< the other fields are those of the client
    local,    ///< a connection of the proxy itself, such as a health check
    invalid,  ///< `problem` says why
  };

  ProxyHeader();

  /// A longer header is invalid.
  static constexpr std::size_t kLongest = 16384;
  /// A longer name of a certificate is invalid.
  static constexpr std::size_t kLongestName = 256;

  /// Adds @p bytes, at most `missing` of them.
  void add(std::string_view bytes);
  [[nodiscard]] State state() const { return state_; }
  /// The number of bytes that are certainly still part of the header; 0 unless it is incomplete.
  [[nodiscard]] std::size_t missing() const;

  /// In host byte order.
  [[nodiscard]] std::uint32_t address() const { return address_; }
  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// The common name of the client's certificate. Empty unless the client presented a certificate
  /// in this TLS session and the proxy has verified it.
  [[nodiscard]] const std::string& verifiedName() const { return name_; }
  [[nodiscard]] const std::string& problem() const { return problem_; }

 private:
  void parseStart();
  void parseRest();
  void parseAddresses();
  [[nodiscard]] bool parseFields(std::string_view fields);
  [[nodiscard]] bool parseTls(std::string_view value);
  [[nodiscard]] bool checksumFits(std::size_t at) const;
  void fail(const char* why);

  State state_ = State::incomplete;
  std::string bytes_;
  std::size_t length_;  // of the whole header, as far as it is known
  std::uint32_t address_ = 0;
  std::uint16_t port_ = 0;
  std::string name_;
  bool hasTls_ = false;
  std::string problem_;
};

}  // namespace runel

#endif  // RUNEL_MASTER_PROXY_HEADER_H_
