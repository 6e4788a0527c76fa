// SPDX-License-Identifier: Apache-2.0
#include "inventory/inventory.h"

#include <algorithm>
#include <utility>

namespace runelctl {

const InventoryDevice* Inventory::add(InventoryDevice device) {
  const std::string key = addressKey(device.address);
  for (const InventoryDevice* same : {this->device(device.name), this->device(device.address)}) {
    if (same != nullptr) {
      return same;
    }
  }
  byName_.emplace(device.name, devices_.size());
  byAddress_.emplace(key, devices_.size());
  devices_.push_back(std::move(device));
  return nullptr;
}

void Inventory::add(InventoryGroup group) {
  for (const std::size_t member : group.members) {
    devices_[member].groups.push_back(group.name);
  }
  groups_.push_back(std::move(group));
}

void Inventory::resolveTimeouts() {
  for (InventoryDevice& device : devices_) {
    device.timeouts = device.defaults.timeouts;
  }
  for (auto group = groups_.rbegin(); group != groups_.rend(); ++group) {
    for (const std::size_t member : group->members) {
      devices_[member].timeouts.complete(group->defaults.timeouts);
    }
  }
  for (InventoryDevice& device : devices_) {
    device.timeouts.complete(defaults_.timeouts);
  }
}

const InventoryDevice* Inventory::device(const std::string& name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : &devices_[found->second];
}

const InventoryDevice* Inventory::device(const runel::Address& address) const {
  const auto found = byAddress_.find(addressKey(address));
  return found == byAddress_.end() ? nullptr : &devices_[found->second];
}

const InventoryGroup* Inventory::group(const std::string& name) const {
  const auto found = std::find_if(groups_.begin(), groups_.end(),
                                  [&](const InventoryGroup& group) { return group.name == name; });
  return found == groups_.end() ? nullptr : &*found;
}

std::vector<std::string> Inventory::groupNames() const {
  std::vector<std::string> names;
  for (const InventoryGroup& group : groups_) {
    names.push_back(group.name);
  }
  return names;
}

std::string addressKey(const runel::Address& address) {
  std::string key = address.text();
  if (!address.isBehindMaster()) {
    std::transform(key.begin(), key.end(), key.begin(), [](char byte) {
      return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
    });
  }
  return key;
}

}  // namespace runelctl
