// SPDX-License-Identifier: Apache-2.0
// Finds the connections of a master by name.
#ifndef RUNEL_MASTER_DEVICE_INDEX_H_
#define RUNEL_MASTER_DEVICE_INDEX_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace runel {

/// Connections by each of their names; a name may belong to several. The cost of each call is
/// logarithmic. Ordered, not hashed: devices choose names and could choose colliding ones.
class DeviceIndex {
 public:
  using Id = std::uint64_t;

  /// Ignores an empty @p name and a name that the connection already has.
  void add(const std::string& name, Id id);
  /// Ignores a name that the connection does not have.
  void remove(const std::string& name, Id id);

  /// In the order of the numbers. Valid until the next change.
  [[nodiscard]] const std::set<Id>& find(const std::string& name) const;

 private:
  std::map<std::string, std::set<Id>> ids_;
};

}  // namespace runel

#endif  // RUNEL_MASTER_DEVICE_INDEX_H_
