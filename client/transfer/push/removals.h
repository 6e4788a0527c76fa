// SPDX-License-Identifier: Apache-2.0
// What a sync removes on the device.
#ifndef RUNEL_TRANSFER_PUSH_REMOVALS_H_
#define RUNEL_TRANSFER_PUSH_REMOVALS_H_

#include <map>
#include <string>
#include <vector>

#include <runel/records.h>

#include "client/core/path_filter.h"

namespace runel {

/// Entries of a tree on the device by path, such as those without a counterpart here.
using ExtraEntries = std::map<std::string, const TreeEntry*>;

struct Removals {
  std::vector<std::string> tops;   ///< to remove with all that is in them
  std::vector<TreeEntry> entries;  ///< all that this removes, sorted by path
};

/// Removes the entries @p extra, except what @p filter leaves out and the directories of that.
/// Nothing if the top of the tree is among them.
[[nodiscard]] Removals removalsOf(const ExtraEntries& extra, const PathFilter& filter);

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_REMOVALS_H_
