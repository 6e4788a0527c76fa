// SPDX-License-Identifier: Apache-2.0
#include "fleet/output_groups.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

namespace runelctl {
namespace {

// A large odd number, so that each piece changes all bits.
constexpr std::uint64_t kHashFactor = 0x9e3779b97f4a7c15;

std::uint64_t hashOf(const std::string& label, const runel::HeldBytes& text) {
  std::uint64_t hash = std::hash<std::string>()(label);
  // An incomplete hash of a file that cannot be read equals no other text either.
  (void)text.forEach([&](std::string_view piece) {
    hash = (hash ^ std::hash<std::string_view>()(piece)) * kHashFactor;
    return true;
  });
  return hash;
}

}  // namespace

void OutputGroups::add(std::size_t index, const std::string& device, const std::string& label,
                       runel::HeldBytes&& text) {
  const std::uint64_t hash = hashOf(label, text);
  const auto [begin, end] = places_.equal_range(hash);
  for (auto place = begin; place != end; ++place) {
    OutputGroup& group = groups_[place->second];
    if (group.label == label && group.text == text) {
      group.devices.emplace(index, device);
      text.clear();
      return;
    }
  }
  places_.emplace(hash, groups_.size());
  groups_.push_back({std::move(text), label, {{index, device}}});
}

std::vector<OutputGroup> OutputGroups::release() {
  places_.clear();
  std::vector<OutputGroup> groups = std::exchange(groups_, {});
  std::sort(groups.begin(), groups.end(), [](const OutputGroup& a, const OutputGroup& b) {
    return a.devices.begin()->first < b.devices.begin()->first;
  });
  return groups;
}

}  // namespace runelctl
