// SPDX-License-Identifier: Apache-2.0
#include "fleet/failure_list.h"

#include "fleet/folded_lines.h"
#include "output/name_ranges.h"

namespace runelctl {

void FailureList::add(std::size_t index, const std::string& device, const std::string& reason,
                      bool told) {
  failures_[index] = {device, reason, told};
}

std::vector<std::string> FailureList::lines(bool untold) const {
  FoldedLines lines;
  for (const auto& [index, failure] : failures_) {
    if (!untold || !failure.told) {
      lines.add(index, failure.device, failure.reason);
    }
  }
  return lines.take();
}

std::string FailureList::names() const {
  std::vector<std::string> devices;
  for (const auto& [index, failure] : failures_) {
    devices.push_back(failure.device);
  }
  return foldNames(devices);
}

}  // namespace runelctl
