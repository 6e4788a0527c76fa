// SPDX-License-Identifier: Apache-2.0
// Collects the devices that a command line selects.
#ifndef RUNELCTL_INVENTORY_SELECTOR_H_
#define RUNELCTL_INVENTORY_SELECTOR_H_

#include <functional>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include <runel/address.h>
#include <runel/result.h>

#include "inventory/inventory.h"

namespace runelctl {

/// One device of a run.
struct Selected {
  runel::Address address;
  const InventoryDevice* device;  ///< nullptr for a device that the inventory does not list
};

/// Each device is selected once, also when it is named twice. All functions fail with `Kind::local`
/// for an invalid selection, and with the error of `Connected`.
class Selector {
 public:
  /// The names of all devices that are connected to the master, without '@'.
  using Connected = std::function<runel::Result<std::vector<std::string>>()>;

  /// @p inventory may be nullptr.
  Selector(std::shared_ptr<const Inventory> inventory, Connected connected)
      : inventory_(std::move(inventory)), connected_(std::move(connected)) {}

  /// Adds the devices of a comma-separated list of names, ranges, addresses, \@NAME and \@all.
  runel::Result<void> addList(const std::string& list);
  /// Adds one element of such a list.
  runel::Result<void> addElement(const std::string& element);
  /// Adds a device with a name that is not in the inventory.
  runel::Result<void> addNamed(const std::string& name, const std::string& address);
  void addAddress(const runel::Address& address);
  runel::Result<void> addGroup(const std::string& name);
  /// Adds all devices of the inventory.
  runel::Result<void> addAll();
  /// Removes the devices without the tag KEY=VALUE.
  runel::Result<void> keepTagged(const std::string& tag);
  /// Removes the devices of a list. Fails for a device that is neither selected nor known: a
  /// misspelled name must not leave its device in the selection.
  runel::Result<void> removeList(const std::string& list);

  [[nodiscard]] const std::vector<Selected>& selected() const { return selected_; }
  /// The values for the whole run: those of the devices and groups that were named, or those for
  /// all devices. The smallest one of several numbers is used. Fails for different waves, unless
  /// @p waveGiven.
  [[nodiscard]] runel::Result<RunDefaults> runDefaults(bool waveGiven) const;

 private:
  [[nodiscard]] runel::Result<Selected> find(const std::string& name) const;
  [[nodiscard]] runel::Result<std::vector<std::string>> expand(const std::string& list) const;
  void add(Selected selected);

  const std::shared_ptr<const Inventory> inventory_;
  const Connected connected_;
  std::vector<Selected> selected_;
  std::unordered_set<std::string> known_;                   // the addresses in `selected_`
  std::vector<std::pair<std::string, RunDefaults>> named_;  // of named devices and groups
};

/// The address in @p text, HOST[:PORT] or \@NAME. Its name has a port only if that is not the
/// default.
[[nodiscard]] runel::Result<runel::Address> parseAddress(const std::string& text);

}  // namespace runelctl

#endif  // RUNELCTL_INVENTORY_SELECTOR_H_
