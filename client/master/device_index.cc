// SPDX-License-Identifier: Apache-2.0
#include "client/master/device_index.h"

namespace runel {

void DeviceIndex::add(const std::string& name, Id id) {
  if (!name.empty()) {
    ids_[name].insert(id);
  }
}

void DeviceIndex::remove(const std::string& name, Id id) {
  const auto found = ids_.find(name);
  if (found != ids_.end()) {
    found->second.erase(id);
    if (found->second.empty()) {
      ids_.erase(found);
    }
  }
}

const std::set<DeviceIndex::Id>& DeviceIndex::find(const std::string& name) const {
  static const std::set<Id> kNone;
  const auto found = ids_.find(name);
  return found == ids_.end() ? kNone : found->second;
}

}  // namespace runel
