// SPDX-License-Identifier: Apache-2.0
// What the gateway knows of one device.
#ifndef RUNELGW_FLEET_DEVICE_H_
#define RUNELGW_FLEET_DEVICE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "gateway/core/outcome.h"

namespace runelgw {

/// What can be done with a device now.
enum class DeviceState {
  online,       ///< connected; requests reach it
  offline,      ///< not connected
  waiting,      ///< it is not approved yet; nothing is written to it
  denied,       ///< a list or a person denies it; nothing is written to it
  quarantined,  ///< connected, but not at its pin, or several connections claim to be it
};

/// "online", "offline", "waiting", "denied" or "quarantined".
[[nodiscard]] const char* nameOf(DeviceState state);
/// The state with this name.
[[nodiscard]] std::optional<DeviceState> stateOf(const std::string& name);

/// One device. All times are wall clock times in milliseconds since 1970; 0 means never or not now.
struct Device {
  DeviceId id = 0;
  std::string hostid;  ///< raw bytes, as the device sent them; may be empty
  /// Unique and printable: the hostid if that is a valid name, else the address, else ADDRESS:PORT.
  std::string name;
  DeviceState state = DeviceState::offline;
  ///@{
  /// The place of the connection that is used, else of the last one.
  std::string address;
  std::uint16_t port = 0;
  std::string certificate;  ///< the name in the verified client certificate, or empty
  ///@}
  ///@{
  /// A connection must come from here to be this device. Both empty: from anywhere.
  std::string pinAddress;
  std::string pinCertificate;
  ///@}
  std::int64_t firstSeen = 0;
  std::int64_t lastSeen = 0;  ///< of a device that is online: the last sign of life that was noted
  std::int64_t connectedSince = 0;  ///< 0 unless a connection of it is used
  std::string deviceType;           ///< "controller", "server" or "unknown"
  std::string kernel;               ///< the release of its kernel, printable; empty while unknown
  std::optional<std::uint64_t> freeBytes;  ///< for users without privileges, on its "/"
  bool agent = false;                      ///< an agent is connected to it
  std::map<std::string, std::string> tags;
  std::vector<std::string> ruleTags;  ///< the names in `tags` that rules have set, sorted
  std::uint64_t connects = 0;
  std::uint64_t losses = 0;
  std::int64_t lastLoss = 0;
  std::string lastLossReason;

  /// Whether the tag @p name was set by a rule.
  [[nodiscard]] bool isRuleTag(const std::string& tag) const;
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_DEVICE_H_
