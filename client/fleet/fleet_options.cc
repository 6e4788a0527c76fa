// SPDX-License-Identifier: Apache-2.0
#include "client/fleet/fleet_options.h"

#include <algorithm>
#include <utility>

#include "client/fleet/waves.h"

namespace runel {
inline namespace v1 {

FleetOptions::FleetOptions() : data_(std::make_unique<Data>()) {}

FleetOptions::FleetOptions(const FleetOptions& other)
    : data_(std::make_unique<Data>(*other.data_)) {}

FleetOptions& FleetOptions::operator=(const FleetOptions& other) {
  if (this != &other) {
    data_ = std::make_unique<Data>(*other.data_);
  }
  return *this;
}

FleetOptions::~FleetOptions() = default;

FleetOptions& FleetOptions::setParallel(std::size_t devices) {
  data_->parallel = std::max<std::size_t>(1, devices);
  return *this;
}

Result<void> FleetOptions::setWaves(const std::string& waves) {
  std::vector<std::size_t> sizes;
  if (!parseWaves(waves, 1, sizes)) {
    return Error(Kind::local, Cause::other,
                 "invalid list of waves '" + waves + "': expected sizes such as 1,10%,rest");
  }
  data_->waves = waves;
  return {};
}

FleetOptions& FleetOptions::setMaxFailures(std::size_t devices) {
  data_->maxFailures = devices;
  return *this;
}

FleetOptions& FleetOptions::setFailFast(bool on) {
  data_->failFast = on;
  return *this;
}

FleetOptions& FleetOptions::setDeadline(std::optional<Milliseconds> time) {
  data_->deadline = time;
  return *this;
}

FleetOptions& FleetOptions::setDevice(const DeviceOptions& options) {
  data_->device = options;
  return *this;
}

FleetOptions& FleetOptions::setDevice(std::size_t index, const DeviceOptions& options) {
  data_->devices[index] = options;
  return *this;
}

FleetOptions& FleetOptions::setDeadline(std::size_t index, std::optional<Milliseconds> time) {
  data_->deadlines[index] = time;
  return *this;
}

FleetReport::FleetReport(std::shared_ptr<const Data> data) : data_(std::move(data)) {}

bool FleetReport::ok() const {
  return data_->failed.empty() && data_->skipped.empty();
}

const std::vector<FleetResult>& FleetReport::results() const {
  return data_->results;
}

std::vector<std::string> FleetReport::failed() const {
  return data_->failed;
}

const std::vector<std::string>& FleetReport::skipped() const {
  return data_->skipped;
}

}  // namespace v1
}  // namespace runel
