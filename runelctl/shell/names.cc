// SPDX-License-Identifier: Apache-2.0
#include "shell/names.h"

#include <algorithm>
#include <memory>

#include "cli/gateway_targets.h"
#include "cli/target_options.h"
#include "inventory/inventory_file.h"

namespace runelctl {
namespace {

// A master that does not answer must not block a completion.
constexpr double kMasterSeconds = 1;
constexpr runel::Milliseconds kGatewayTime{1500};

std::shared_ptr<const Inventory> inventoryOf(const Settings& settings) {
  if (settings.inventory) {
    return settings.inventory;
  }
  const auto loaded = loadInventory(settings.inventoryFile);
  return loaded ? *loaded : nullptr;
}

}  // namespace

std::vector<std::string> deviceNames(const Settings& settings) {
  std::vector<std::string> names;
  Settings quick = settings;
  quick.ioTimeout = std::min(quick.ioTimeout, kMasterSeconds);
  quick.inventory = inventoryOf(settings);
  if (!chooseGateway(quick)) {
    return names;
  }
  if (quick.gateway) {
    const auto all = selectAtGateway(*quick.gateway, {{"@all"}, {}, {}, {}}, kGatewayTime);
    return all ? *all : names;
  }
  if (const auto& inventory = quick.inventory) {
    for (const InventoryDevice& device : inventory->devices()) {
      names.push_back(device.name);
    }
  }
  const auto connected = connectedDevices(quick);
  if (connected) {
    for (const std::string& name : *connected) {
      names.push_back("@" + name);
    }
  }
  return names;
}

std::vector<std::string> groupNames(const Settings& settings) {
  const auto inventory = inventoryOf(settings);
  return inventory ? inventory->groupNames() : std::vector<std::string>();
}

}  // namespace runelctl
