// SPDX-License-Identifier: Apache-2.0
// Device addresses.
#ifndef RUNEL_ADDRESS_H_
#define RUNEL_ADDRESS_H_

#include <cstdint>
#include <memory>
#include <string>

#include <runel/export.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// The port on which a device accepts task connections.
constexpr std::uint16_t kTaskPort = 5111;
/// The port to which devices connect at a master.
constexpr std::uint16_t kMasterListenPort = 5112;

/// Where a device is reached, and its name in messages and reports. Copies are cheap.
class RUNEL_API Address {
 public:
  /// A device at @p host, an IPv4 address or a host name. Its name is @p host, with the port if it
  /// is not 5111.
  explicit Address(const std::string& host, std::uint16_t port = kTaskPort);
  /// The device that a running `runelctl master` knows as @p name.
  [[nodiscard]] static Address behindMaster(const std::string& name);
  /// Parses HOST[:PORT] or \@NAME. Fails with `Kind::local`.
  [[nodiscard]] static Result<Address> parse(const std::string& text);

  /// The same address with another @p name.
  [[nodiscard]] Address named(const std::string& name) const;

  /// The name in messages and reports.
  [[nodiscard]] const std::string& name() const;
  /// Empty for a device behind a master.
  [[nodiscard]] const std::string& host() const;
  /// The TCP port. Without a meaning for a device behind a master.
  [[nodiscard]] std::uint16_t port() const;
  /// Its name at the master, without the '@'; empty for all others.
  [[nodiscard]] const std::string& through() const;
  /// Whether a running `runelctl master` passes the requests on.
  [[nodiscard]] bool isBehindMaster() const { return !through().empty(); }

  /// HOST:PORT or \@NAME, which `parse` accepts.
  [[nodiscard]] std::string text() const;

  /// The same device; names are not compared.
  [[nodiscard]] bool operator==(const Address& other) const;

 private:
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit Address(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_ADDRESS_H_
