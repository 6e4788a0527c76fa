// SPDX-License-Identifier: Apache-2.0
// The devices that failed, by reason.
#ifndef RUNELCTL_FLEET_FAILURE_LIST_H_
#define RUNELCTL_FLEET_FAILURE_LIST_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace runelctl {

class FailureList {
 public:
  /// Adds a device. @p index is its place in the list of targets. With @p told, an error message
  /// has named it already.
  void add(std::size_t index, const std::string& device, const std::string& reason, bool told);

  /// One line for each reason, "gw-[03-09],gw-12: exit status 3", in the order of the first
  /// devices. May contain any bytes. With @p untold, only for devices that no error message has
  /// named.
  [[nodiscard]] std::vector<std::string> lines(bool untold) const;
  /// The names of all failed devices as one list.
  [[nodiscard]] std::string names() const;

 private:
  struct Failure {
    std::string device;
    std::string reason;
    bool told;
  };

  std::map<std::size_t, Failure> failures_;
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_FAILURE_LIST_H_
