// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/groups.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "client/master/access_list.h"
#include "gateway/fleet/text.h"
#include "text/nearest.h"

namespace runelgw {

// The costs of the groups that were looked at, and the way to the current one.
struct Groups::Search {
  std::map<std::string, Cost> known;
  std::vector<std::string> path;
};

bool Groups::isName(const std::string& name) {
  return runel::usableName(name) && name != "all";
}

runel::Result<Groups::Cost> Groups::costOfGroup(const std::string& name, Search& search) const {
  const auto known = search.known.find(name);
  if (known != search.known.end()) {
    return known->second;
  }
  const Query* const query = find(name);
  if (query == nullptr) {
    return failure("no group '" + name + "'" + zell::suggestion(name, names()));
  }
  const auto begin = std::find(search.path.begin(), search.path.end(), name);
  if (begin != search.path.end()) {
    std::string way;
    for (auto at = begin; at != search.path.end(); ++at) {
      way += "@" + *at + " -> ";
    }
    return failure("a group cannot use itself: " + way + "@" + name);
  }
  search.path.push_back(name);
  runel::Result<Cost> result = cost(*query, search);
  search.path.pop_back();
  if (result) {
    search.known[name] = *result;
  }
  return result;
}

runel::Result<Groups::Cost> Groups::cost(const Query& query, Search& search) const {
  Cost all{query.terms(), 1};
  for (const std::string& name : query.groups()) {
    runel::Result<Cost> one = costOfGroup(name, search);
    if (!one) {
      return one;
    }
    all.terms += one->terms * query.uses(name);
    all.depth = std::max(all.depth, one->depth + 1);
  }
  if (all.terms > kMostWork) {
    return failure("with its groups the query has more than " + std::to_string(kMostWork) +
                   " terms");
  }
  if (all.depth > kDeepest) {
    return failure("groups use each other more than " + std::to_string(kDeepest) + " levels deep");
  }
  return all;
}

runel::Result<void> Groups::check(const Query& query) const {
  Search search;
  const runel::Result<Cost> result = cost(query, search);
  return result ? runel::Result<void>() : result.error();
}

runel::Result<void> Groups::set(const std::string& name, const std::string& text) {
  if (!isName(name)) {
    return failure("invalid name of a group: expected 1 to 64 letters, digits, '.', '-' and '_'");
  }
  runel::Result<Query> query = Query::parse(text);
  if (!query) {
    return query.error();
  }
  if (groups_.count(name) == 0 && groups_.size() >= kMostGroups) {
    return failure("more than " + std::to_string(kMostGroups) + " groups");
  }
  std::optional<Query> before;
  const auto found = groups_.find(name);
  if (found != groups_.end()) {
    before = found->second;
  }
  groups_.insert_or_assign(name, *std::move(query));
  // Groups that use this one have more work too.
  Search search;
  for (const auto& [each, unused] : groups_) {
    const runel::Result<Cost> result = costOfGroup(each, search);
    if (!result) {
      groups_.erase(name);
      if (before) {
        groups_.emplace(name, *before);
      }
      return result.error();
    }
  }
  return {};
}

runel::Result<void> Groups::remove(const std::string& name) {
  if (groups_.count(name) == 0) {
    return failure("no group '" + name + "'" + zell::suggestion(name, names()));
  }
  for (const auto& [user, query] : groups_) {
    if (query.uses(name) > 0) {
      return failure("the group '" + user + "' uses it");
    }
  }
  groups_.erase(name);
  return {};
}

const Query* Groups::find(const std::string& name) const {
  const auto found = groups_.find(name);
  return found == groups_.end() ? nullptr : &found->second;
}

bool Groups::dependsOnTime(const Query& query) const {
  if (query.dependsOnTime()) {
    return true;
  }
  return std::any_of(query.groups().begin(), query.groups().end(), [&](const std::string& name) {
    const Query* const group = find(name);
    return group != nullptr && dependsOnTime(*group);
  });
}

std::vector<std::string> Groups::names() const {
  std::vector<std::string> names;
  for (const auto& [name, unused] : groups_) {
    names.push_back(name);
  }
  return names;
}

}  // namespace runelgw
