// SPDX-License-Identifier: Apache-2.0
// Parses the text of an inventory file.
#ifndef RUNELCTL_INVENTORY_PARSE_INVENTORY_H_
#define RUNELCTL_INVENTORY_PARSE_INVENTORY_H_

#include <string>
#include <string_view>
#include <vector>

#include "inventory/inventory.h"

namespace runelctl {

struct InventoryProblem {
  int line = 0;
  std::string text;  ///< may contain any bytes of the file
};

/// Adds what @p text defines to the empty @p inventory. Returns the problems in the order of their
/// lines. After a problem the inventory is incomplete.
[[nodiscard]] std::vector<InventoryProblem> parseInventory(std::string_view text,
                                                           Inventory& inventory);

/// True for a name of a device or group: letters, digits, '.', '_' and '-', which is not the first
/// byte.
[[nodiscard]] bool isInventoryName(std::string_view name);

}  // namespace runelctl

#endif  // RUNELCTL_INVENTORY_PARSE_INVENTORY_H_
