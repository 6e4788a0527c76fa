// SPDX-License-Identifier: Apache-2.0
// Equal outputs of many devices.
#ifndef RUNELCTL_FLEET_OUTPUT_GROUPS_H_
#define RUNELCTL_FLEET_OUTPUT_GROUPS_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "client/io/spool.h"

namespace runelctl {

/// Devices with the same output and the same label.
struct OutputGroup {
  runel::HeldBytes text;
  std::string label;
  /// Names, by the index of the device in the list of targets.
  std::map<std::size_t, std::string> devices;
};

class OutputGroups {
 public:
  /// Adds the output of one device, which is not held again if it is there already. @p label tells
  /// how the device ended. @p index is its place in the list of targets.
  void add(std::size_t index, const std::string& device, const std::string& label,
           runel::HeldBytes&& text);
  /// Moves all groups out, in the order of their first devices.
  [[nodiscard]] std::vector<OutputGroup> release();

 private:
  std::vector<OutputGroup> groups_;
  std::unordered_multimap<std::uint64_t, std::size_t> places_;  // by hash
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_OUTPUT_GROUPS_H_
