// SPDX-License-Identifier: Apache-2.0
// The events of a master.
#ifndef RUNEL_EVENTS_H_
#define RUNEL_EVENTS_H_

#include <cstdint>
#include <memory>
#include <string>

#include <runel/export.h>

namespace runel {
inline namespace v1 {

/// Something that happened at a master. Copies are cheap.
class RUNEL_API MasterEvent {
 public:
  /// What happened. New types may come with new versions: ignore an unknown one.
  enum class Type {
    connected,       ///< a device has connected and told its identity; it accepts tasks
    lost,            ///< a task connection ended; `device` is empty if it was not connected before
    refused,         ///< a connection was refused; it is held open for some seconds
    additional,      ///< a device opened a further connection: a bridge, or a surplus connection
    agentConnected,  ///< the agent of a device has sent its first byte
    clause,          ///< the agent of a device sent a clause
    additionalLost,  ///< a further connection ended: a bridge, or a surplus connection
    problem,         ///< connections cannot be accepted; `text` says why
  };
  /// Why a connection was refused.
  enum class Refusal {
    none,                ///< it was not
    address,             ///< its address is not allowed
    hostid,              ///< its host identifier is not allowed
    tooManyConnections,  ///< its address has too many connections
    proxyHeader,         ///< it comes from a proxy, without a valid header; `text` says more
    duplicate,           ///< another connection has the same address and port, behind a proxy
    policy,              ///< the policy of the options: nothing was ever written to it
  };

  /// What happened.
  [[nodiscard]] Type type() const;
  /// The device's name at this master: see `DeviceInfo::name`. Empty while it is unknown.
  [[nodiscard]] const std::string& device() const;
  /// The host identifier, if it is a valid name. For a further connection that of its device.
  /// Empty while it is unknown: a clause waits until its device has told its identity, and has none
  /// only if the device is lost before, or if several devices are at its address.
  [[nodiscard]] const std::string& hostid() const;
  /// For `connected`: the host identifier as the device told it, any bytes; empty if it told none,
  /// or one of more than 256 bytes.
  [[nodiscard]] const std::string& rawHostid() const;
  /// As the device has told. Empty while it is unknown.
  [[nodiscard]] const std::string& deviceType() const;
  ///@{
  /// The IPv4 address and the port at the other end of the connection.
  [[nodiscard]] const std::string& host() const;
  [[nodiscard]] std::uint16_t port() const;
  ///@}
  /// The name in the client's certificate, if a trusted proxy has verified one; otherwise empty.
  [[nodiscard]] const std::string& certificate() const;
  /// ADDRESS:PORT of the task connection of the device; for a further connection that of its
  /// device. Empty while it is unknown, and if several devices are at its address.
  [[nodiscard]] const std::string& taskPlace() const;
  /// The clause of `clause`; the reason of `lost`, `refused`, `additionalLost` and `problem`.
  [[nodiscard]] const std::string& text() const;
  /// For `refused`: why.
  [[nodiscard]] Refusal refusal() const;
  /// For `additionalLost`: it was the bridge of an agent.
  [[nodiscard]] bool fromAgent() const;

 private:
  friend class MasterEngine;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit MasterEvent(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_EVENTS_H_
