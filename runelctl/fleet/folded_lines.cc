// SPDX-License-Identifier: Apache-2.0
#include "fleet/folded_lines.h"

#include <utility>

#include "output/name_ranges.h"

namespace runelctl {

void FoldedLines::add(std::size_t index, const std::string& device, const std::string& text) {
  std::map<std::size_t, std::string>& same = devices_[text];
  if (same.empty()) {
    texts_.push_back(text);
  }
  same[index] = device;
}

std::vector<std::string> FoldedLines::take() {
  std::vector<std::string> lines;
  for (const std::string& text : std::exchange(texts_, {})) {
    std::vector<std::string> names;
    for (const auto& [index, device] : devices_[text]) {
      names.push_back(device);
    }
    lines.push_back(foldNames(names) + ": " + text);
  }
  devices_.clear();
  return lines;
}

}  // namespace runelctl
