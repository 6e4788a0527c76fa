// SPDX-License-Identifier: Apache-2.0
// Saved queries.
#ifndef RUNELGW_FLEET_GROUPS_H_
#define RUNELGW_FLEET_GROUPS_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include <runel/result.h>

#include "gateway/fleet/query.h"

namespace runelgw {

/// Queries by name. A group may use others, but not itself through them.
class Groups {
 public:
  /// The most terms of a query with those of all groups that it uses: it limits the time to
  /// evaluate it.
  static constexpr std::size_t kMostWork = 8192;
  /// How deep groups may use each other.
  static constexpr std::size_t kDeepest = 16;
  /// The most groups.
  static constexpr std::size_t kMostGroups = 1000;

  /// Adds or replaces a group. Fails with a sentence for an invalid name, a malformed query, an
  /// unknown group in it, a cycle, and more than `kMostWork` or `kMostGroups`.
  runel::Result<void> set(const std::string& name, const std::string& text);
  /// Fails if there is no such group, and while another one uses it.
  runel::Result<void> remove(const std::string& name);

  /// nullptr for an unknown group.
  [[nodiscard]] const Query* find(const std::string& name) const;
  /// Whether all groups that @p query uses exist, and it is not too much work.
  [[nodiscard]] runel::Result<void> check(const Query& query) const;
  /// Whether the result of @p query changes with time alone, through its groups too.
  [[nodiscard]] bool dependsOnTime(const Query& query) const;
  /// All names, sorted.
  [[nodiscard]] std::vector<std::string> names() const;
  [[nodiscard]] const std::map<std::string, Query>& all() const { return groups_; }

  /// 1 to 64 letters, digits, '.', '-' and '_', except "all".
  [[nodiscard]] static bool isName(const std::string& name);

 private:
  struct Cost {
    std::size_t terms = 0;
    std::size_t depth = 0;
  };
  struct Search;
  [[nodiscard]] runel::Result<Cost> cost(const Query& query, Search& search) const;
  [[nodiscard]] runel::Result<Cost> costOfGroup(const std::string& name, Search& search) const;

  std::map<std::string, Query> groups_;
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_GROUPS_H_
