// SPDX-License-Identifier: Apache-2.0
#include "fleet/awaited_devices.h"

#include <algorithm>
#include <chrono>

#include "output/text.h"

namespace runelctl {
namespace {

constexpr std::chrono::seconds kLongSilence{5};
constexpr std::chrono::seconds kLongWait{2};
constexpr std::chrono::seconds kLate{5};
constexpr std::size_t kMostAwaitedNames = 5;

}  // namespace

std::string silenceText(runel::Milliseconds silence, bool acknowledges) {
  if (silence < kLongSilence) {
    return "";
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(silence).count();
  return (acknowledges ? "busy for " : "no acknowledgement for ") + std::to_string(seconds) + " s";
}

void AwaitedDevices::enter(std::size_t index, const std::string& name,
                           const runel::AsyncDevice& device, Time now) {
  devices_.try_emplace(index, Device{name, now, nullptr}).first->second.connection = &device;
}

void AwaitedDevices::leave(std::size_t index) {
  const auto found = devices_.find(index);
  if (found != devices_.end()) {
    found->second.connection = nullptr;
  }
}

void AwaitedDevices::end(std::size_t index, Time now) {
  const auto found = devices_.find(index);
  if (found != devices_.end()) {
    slowest_ = std::max(slowest_, now - found->second.begin);
    devices_.erase(found);
  }
}

std::string AwaitedDevices::stateOf(const Device& device) {
  return device.connection == nullptr
             ? ""
             : silenceText(device.connection->silence(), device.connection->acknowledges());
}

std::string AwaitedDevices::stateOfOne() const {
  return devices_.empty() ? "" : stateOf(devices_.begin()->second);
}

std::string AwaitedDevices::text(Time now) const {
  std::string names;
  std::size_t count = 0;
  for (const auto& [index, device] : devices_) {
    if (now - device.begin < kLongWait || ++count > kMostAwaitedNames) {
      continue;
    }
    const std::string state = stateOf(device);
    names += (names.empty() ? "" : ", ") + terminalSafe(device.name) +
             (state.empty() ? "" : " (" + state + ")");
  }
  return names + (count > kMostAwaitedNames
                      ? " and " + std::to_string(count - kMostAwaitedNames) + " more"
                      : "");
}

bool AwaitedDevices::allLate(Time now) const {
  const auto late = std::max<Time::duration>(kLate, 2 * slowest_);
  return !devices_.empty() && std::all_of(devices_.begin(), devices_.end(), [&](const auto& entry) {
    return now - entry.second.begin > late;
  });
}

}  // namespace runelctl
