// SPDX-License-Identifier: Apache-2.0
// The devices that may connect to the master.
#ifndef RUNEL_MASTER_ACCESS_LIST_H_
#define RUNEL_MASTER_ACCESS_LIST_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_set>

namespace runel {

/// The allowed addresses and host identifiers. An empty list allows all devices. A device must be
/// on both lists.
class AccessList {
 public:
  /// Adds a comma-separated list of ADDRESS and ADDRESS/BITS. Returns false for other text.
  [[nodiscard]] bool addAddresses(const std::string& list);
  /// Adds a comma-separated list of host identifiers. Returns false for an invalid host identifier.
  [[nodiscard]] bool addHostids(const std::string& list);

  /// Whether there is a list of addresses.
  [[nodiscard]] bool listsAny() const { return !networks_.empty(); }
  /// Whether @p address is on the list of addresses, in host byte order.
  [[nodiscard]] bool lists(std::uint32_t address) const;
  /// The same, or there is no list.
  [[nodiscard]] bool allowsAddress(std::uint32_t address) const;
  [[nodiscard]] bool allowsHostid(const std::string& hostid) const;

 private:
  [[nodiscard]] bool addNetwork(const std::string& text);

  std::map<std::uint32_t, std::unordered_set<std::uint32_t>> networks_;  // addresses by mask
  std::set<std::string> hostids_;
};

/// True for a valid device name: 1 to 64 letters, digits, '.', '-' and '_'. The names that devices
/// report are untrusted and must be checked.
[[nodiscard]] bool usableName(const std::string& text);

}  // namespace runel

#endif  // RUNEL_MASTER_ACCESS_LIST_H_
