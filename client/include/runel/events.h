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
    lost,            ///< the task connection of a device ended
    refused,         ///< a connection was refused; it is held open for some seconds
    additional,      ///< a device opened a further connection: a bridge, or a surplus connection
    agentConnected,  ///< the agent of a device has sent its first byte
    clause,          ///< the agent of a device sent a clause
    additionalLost,  ///< a further connection ended: a bridge, or a surplus connection
    problem,         ///< connections cannot be accepted; `text` says why
  };

  /// What happened.
  [[nodiscard]] Type type() const;
  /// The device's name at this master: its host identifier; or, if it is empty, unusable or taken,
  /// its address. Empty while it is unknown.
  [[nodiscard]] const std::string& device() const;
  ///@{
  /// As the device has told. Empty while it is unknown.
  [[nodiscard]] const std::string& hostid() const;
  [[nodiscard]] const std::string& deviceType() const;
  ///@}
  ///@{
  /// The IPv4 address and the port at the other end of the connection.
  [[nodiscard]] const std::string& host() const;
  [[nodiscard]] std::uint16_t port() const;
  ///@}
  /// The clause of `clause`; the reason of `lost`, `refused`, `additionalLost` and `problem`.
  [[nodiscard]] const std::string& text() const;
  /// For `additionalLost`: it was the bridge of an agent.
  [[nodiscard]] bool fromAgent() const;

 private:
  friend class MasterWork;
  struct RUNEL_LOCAL Data;
  RUNEL_LOCAL explicit MasterEvent(std::shared_ptr<const Data> data);
  std::shared_ptr<const Data> data_;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_EVENTS_H_
