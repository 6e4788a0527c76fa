// SPDX-License-Identifier: Apache-2.0
// The devices that an inventory file lists, with their groups, tags and defaults.
#ifndef RUNELCTL_INVENTORY_INVENTORY_H_
#define RUNELCTL_INVENTORY_INVENTORY_H_

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <runel/address.h>

#include "inventory/defaults.h"

namespace runelctl {

struct InventoryDevice {
  std::string name;
  runel::Address address;  ///< its name is `name`
  int line = 0;            ///< of its definition
  std::map<std::string, std::string> tags{};
  std::vector<std::string> groups{};  ///< in the order of the file
  Defaults defaults{};                ///< its own ones only
  Timeouts timeouts{};                ///< with those of its groups and of all devices
};

struct InventoryGroup {
  std::string name;
  int line = 0;
  std::vector<std::size_t> members{};  ///< places in the list of devices
  Defaults defaults{};
};

/// The devices and groups in the order of the file, with unique names and addresses.
class Inventory {
 public:
  /// Returns the device that already has this name or address, and adds nothing; nullptr on
  /// success.
  const InventoryDevice* add(InventoryDevice device);
  /// Adds a group with a new name, whose members exist.
  void add(InventoryGroup group);
  void setDefaults(const Defaults& defaults) { defaults_ = defaults; }
  /// Completes `timeouts` of all devices. Of the groups that have a device, the last one in the
  /// file takes precedence. Call it at the end.
  void resolveTimeouts();

  [[nodiscard]] const std::vector<InventoryDevice>& devices() const { return devices_; }
  [[nodiscard]] const std::vector<InventoryGroup>& groups() const { return groups_; }
  [[nodiscard]] const Defaults& defaults() const { return defaults_; }

  ///@{
  /// nullptr if it is missing.
  [[nodiscard]] const InventoryDevice* device(const std::string& name) const;
  [[nodiscard]] const InventoryDevice* device(const runel::Address& address) const;
  [[nodiscard]] const InventoryGroup* group(const std::string& name) const;
  ///@}
  [[nodiscard]] std::vector<std::string> groupNames() const;

 private:
  std::vector<InventoryDevice> devices_;
  std::vector<InventoryGroup> groups_;
  Defaults defaults_;
  std::unordered_map<std::string, std::size_t> byName_;
  std::unordered_map<std::string, std::size_t> byAddress_;  // by `addressKey`
};

/// Equal for texts of the same address: host names are case-insensitive.
[[nodiscard]] std::string addressKey(const runel::Address& address);

}  // namespace runelctl

#endif  // RUNELCTL_INVENTORY_INVENTORY_H_
