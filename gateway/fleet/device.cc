// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/device.h"

#include <algorithm>

namespace runelgw {

const char* nameOf(DeviceState state) {
  switch (state) {
    case DeviceState::online:
      return "online";
    case DeviceState::offline:
      return "offline";
    case DeviceState::waiting:
      return "waiting";
    case DeviceState::denied:
      return "denied";
    case DeviceState::quarantined:
      return "quarantined";
  }
  return "";
}

std::optional<DeviceState> stateOf(const std::string& name) {
  for (const DeviceState state : {DeviceState::online, DeviceState::offline, DeviceState::waiting,
                                  DeviceState::denied, DeviceState::quarantined}) {
    if (name == nameOf(state)) {
      return state;
    }
  }
  return std::nullopt;
}

bool Device::isRuleTag(const std::string& tag) const {
  return std::binary_search(ruleTags.begin(), ruleTags.end(), tag);
}

}  // namespace runelgw
