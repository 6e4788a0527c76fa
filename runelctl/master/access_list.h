// SPDX-License-Identifier: Apache-2.0
// Who may connect to the master.
#ifndef ZELL_RUNELCTL_MASTER_ACCESS_LIST_H_
#define ZELL_RUNELCTL_MASTER_ACCESS_LIST_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace zell::ctl {

/// Addresses and host identifiers that are let in. A list that is empty lets everybody in; with
/// both, a device must be on both.
class AccessList {
 public:
  /// Adds ADDRESS or ADDRESS/BITS, or a list of them with commas. False for anything else.
  [[nodiscard]] bool addAddresses(const std::string& list);
  /// Adds a host identifier, or a list of them with commas. False for one that no device can have.
  [[nodiscard]] bool addHostids(const std::string& list);

  /// @p address in the host's byte order.
  [[nodiscard]] bool allowsAddress(std::uint32_t address) const;
  [[nodiscard]] bool allowsHostid(const std::string& hostid) const;

 private:
  struct Network {
    std::uint32_t address;
    std::uint32_t mask;
  };
  [[nodiscard]] bool addNetwork(const std::string& text);

  std::vector<Network> networks_;
  std::set<std::string> hostids_;
};

/// True for what can serve as a device's name: letters, digits and a few marks, not too many. What
/// a device says it is called goes through this before anybody gets to see it.
[[nodiscard]] bool usableName(const std::string& text);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_ACCESS_LIST_H_
