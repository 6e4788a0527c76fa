// SPDX-License-Identifier: Apache-2.0
// The values of FleetOptions and FleetReport.
#ifndef RUNEL_FLEET_FLEET_OPTIONS_H_
#define RUNEL_FLEET_FLEET_OPTIONS_H_

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <runel/fleet.h>

namespace runel {
inline namespace v1 {

constexpr std::size_t kUsualParallel = 32;

struct FleetOptions::Data {
  std::size_t parallel = kUsualParallel;
  std::string waves;
  std::size_t maxFailures = 0;
  bool failFast = false;
  std::optional<Milliseconds> deadline;
  DeviceOptions device;
  std::map<std::size_t, DeviceOptions> devices;  // for single devices, by their index
  std::map<std::size_t, std::optional<Milliseconds>> deadlines;

  [[nodiscard]] const DeviceOptions& deviceAt(std::size_t index) const {
    const auto own = devices.find(index);
    return own == devices.end() ? device : own->second;
  }
  [[nodiscard]] const std::optional<Milliseconds>& deadlineAt(std::size_t index) const {
    const auto own = deadlines.find(index);
    return own == deadlines.end() ? deadline : own->second;
  }
};

struct FleetReport::Data {
  std::vector<FleetResult> results;
  std::vector<std::string> failed;
  std::vector<std::string> skipped;
};

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_FLEET_FLEET_OPTIONS_H_
