// SPDX-License-Identifier: Apache-2.0
// Texts about devices, the equal ones in one line.
#ifndef RUNELCTL_FLEET_FOLDED_LINES_H_
#define RUNELCTL_FLEET_FOLDED_LINES_H_

#include <cstddef>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace runelctl {

class FoldedLines {
 public:
  /// Adds @p text about a device. @p index is its place in the list of targets.
  void add(std::size_t index, const std::string& device, const std::string& text);

  [[nodiscard]] bool empty() const { return texts_.empty(); }
  /// Removes all texts. Returns a line for each different one, "gw-[03-09],gw-12: exit status 3",
  /// in the order in which they were added first. May contain any bytes.
  [[nodiscard]] std::vector<std::string> take();

 private:
  std::vector<std::string> texts_;
  std::unordered_map<std::string, std::map<std::size_t, std::string>> devices_;  // by text
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_FOLDED_LINES_H_
