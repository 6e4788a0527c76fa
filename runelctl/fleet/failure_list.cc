// SPDX-License-Identifier: Apache-2.0
#include "fleet/failure_list.h"

#include "output/name_ranges.h"

namespace runelctl {

void FailureList::add(std::size_t index, const std::string& device, const std::string& reason,
                      bool told) {
  failures_[index] = {device, reason, told};
}

std::vector<std::string> FailureList::lines(bool untold) const {
  std::vector<std::string> reasons;  // in the order of the lines
  std::unordered_map<std::string, std::vector<std::string>> devices;
  for (const auto& [index, failure] : failures_) {
    if (untold && failure.told) {
      continue;
    }
    std::vector<std::string>& same = devices[failure.reason];
    if (same.empty()) {
      reasons.push_back(failure.reason);
    }
    same.push_back(failure.device);
  }
  std::vector<std::string> lines;
  for (const std::string& reason : reasons) {
    lines.push_back(foldNames(devices[reason]) + ": " + reason);
  }
  return lines;
}

std::string FailureList::names() const {
  std::vector<std::string> devices;
  for (const auto& [index, failure] : failures_) {
    devices.push_back(failure.device);
  }
  return foldNames(devices);
}

}  // namespace runelctl
