// SPDX-License-Identifier: Apache-2.0
// Finds and reads the inventory file.
#ifndef RUNELCTL_INVENTORY_INVENTORY_FILE_H_
#define RUNELCTL_INVENTORY_INVENTORY_FILE_H_

#include <memory>
#include <string>
#include <vector>

#include <runel/result.h>

#include "inventory/parse_inventory.h"

namespace runelctl {

/// The largest inventory file, in bytes.
constexpr std::size_t kLongestInventory = 16777216;

/// The files that are tried in this order without --inventory: the user's own one in
/// XDG_CONFIG_HOME or ~/.config, and the one of the system.
[[nodiscard]] std::vector<std::string> inventoryPlaces();

class InventoryFile {
 public:
  /// @p path is the value of --inventory. Empty: the first existing file of `inventoryPlaces`.
  explicit InventoryFile(std::string path) : path_(std::move(path)) {}

  /// Reads the file. Fails if it cannot be read; without a file only if its path was given. An
  /// inventory with problems is loaded too: see `problems`.
  [[nodiscard]] runel::Result<void> load();

  /// Empty if there is no file.
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] const std::vector<InventoryProblem>& problems() const { return problems_; }
  /// nullptr if there is no file.
  [[nodiscard]] std::shared_ptr<const Inventory> inventory() const { return inventory_; }

  /// "FILE:LINE: TEXT"
  [[nodiscard]] std::string text(const InventoryProblem& problem) const;

 private:
  std::string path_;
  std::vector<InventoryProblem> problems_;
  std::shared_ptr<const Inventory> inventory_;
};

/// "no inventory: create A or B"
[[nodiscard]] std::string noInventoryText();

/// Loads the inventory for a run: fails also for the first problem. nullptr without a file.
[[nodiscard]] runel::Result<std::shared_ptr<const Inventory>> loadInventory(
    const std::string& path);

}  // namespace runelctl

#endif  // RUNELCTL_INVENTORY_INVENTORY_FILE_H_
