// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/push/removals.h"

#include <set>

#include "client/core/paths.h"

namespace runel {
namespace {

// The paths that stay. The walk of a device may contain any path.
std::set<std::string> keptPaths(const ExtraEntries& extra, const PathFilter& filter) {
  std::set<std::string> kept;
  for (const auto& [path, entry] : extra) {
    if (!filter.empty() && filter.hides(path, entry->type == 'd')) {
      for (std::string at = path; at != "." && at != "/" && kept.insert(at).second;) {
        at = directoryOf(at);
      }
    }
  }
  return kept;
}

}  // namespace

Removals removalsOf(const ExtraEntries& extra, const PathFilter& filter) {
  Removals removals;
  if (extra.count(".") != 0) {
    return removals;
  }
  const std::set<std::string> kept = keptPaths(extra, filter);
  const auto goes = [&](const std::string& path) {
    return extra.count(path) != 0 && kept.count(path) == 0;
  };
  for (const auto& [path, entry] : extra) {
    if (goes(path)) {
      removals.entries.push_back(*entry);
      if (!goes(directoryOf(path))) {
        removals.tops.push_back(path);
      }
    }
  }
  return removals;
}

}  // namespace runel
