// SPDX-License-Identifier: Apache-2.0
#include "inventory/selector.h"

#include <algorithm>

#include "inventory/inventory_file.h"
#include "inventory/name_pattern.h"
#include "text/nearest.h"

namespace runelctl {
namespace {

constexpr char kAllConnected[] = "@all";

runel::Error selectionError(const std::string& why) {
  return {runel::Kind::local, runel::Cause::other, why};
}

void takeSmaller(std::optional<int>& number, const std::optional<int>& other) {
  if (other && (!number || *other < *number)) {
    number = other;
  }
}

}  // namespace

runel::Result<void> Selector::addList(const std::string& list) {
  const runel::Result<std::vector<std::string>> names = expand(list);
  if (!names) {
    return names.error();
  }
  for (const std::string& name : *names) {
    const runel::Result<Selected> found = find(name);
    if (!found) {
      return found.error();
    }
    if (found->device != nullptr && found->device->name == name) {
      named_.emplace_back(name, found->device->defaults.run);
    }
    add(*found);
  }
  return {};
}

runel::Result<void> Selector::addElement(const std::string& element) {
  return splitList(element).size() > 1
             ? runel::Result<void>(selectionError("'" + element + "': expected one device"))
             : addList(element);
}

runel::Result<void> Selector::addNamed(const std::string& name, const std::string& address) {
  const runel::Result<Selected> found = find(address);
  if (!found) {
    return found.error();
  }
  add({found->address.named(name), found->device});
  return {};
}

void Selector::addAddress(const runel::Address& address) {
  add({address, inventory_ ? inventory_->device(address) : nullptr});
}

runel::Result<void> Selector::addGroup(const std::string& name) {
  if (!inventory_) {
    return selectionError(noInventoryText());
  }
  const InventoryGroup* group = inventory_->group(name);
  if (group == nullptr) {
    return selectionError("no group '" + name + "'" +
                          zell::suggestion(name, inventory_->groupNames()));
  }
  named_.emplace_back(name, group->defaults.run);
  for (const std::size_t member : group->members) {
    const InventoryDevice& device = inventory_->devices()[member];
    add({device.address, &device});
  }
  return {};
}

runel::Result<void> Selector::addAll() {
  if (!inventory_) {
    return selectionError(noInventoryText());
  }
  for (const InventoryDevice& device : inventory_->devices()) {
    add({device.address, &device});
  }
  return {};
}

runel::Result<void> Selector::keepTagged(const std::string& tag) {
  const std::size_t equals = tag.find('=');
  if (equals == 0 || equals == std::string::npos) {
    return selectionError("invalid tag '" + tag + "': expected KEY=VALUE");
  }
  const std::string key = tag.substr(0, equals);
  const std::string value = tag.substr(equals + 1);
  const auto differs = [&](const Selected& selected) {
    if (selected.device == nullptr) {
      return true;
    }
    const auto found = selected.device->tags.find(key);
    return found == selected.device->tags.end() || found->second != value;
  };
  selected_.erase(std::remove_if(selected_.begin(), selected_.end(), differs), selected_.end());
  return {};
}

runel::Result<void> Selector::removeList(const std::string& list) {
  const runel::Result<std::vector<std::string>> names = expand(list);
  if (!names) {
    return names.error();
  }
  std::unordered_set<std::string> removed;
  for (const std::string& name : *names) {
    const runel::Result<Selected> found = find(name);
    if (!found) {
      return found.error();
    }
    const std::string key = addressKey(found->address);
    if (found->device == nullptr && known_.count(key) == 0) {
      return selectionError("no device '" + name + "' is selected");
    }
    removed.insert(key);
  }
  const auto left = [&](const Selected& selected) {
    return removed.count(addressKey(selected.address)) > 0;
  };
  selected_.erase(std::remove_if(selected_.begin(), selected_.end(), left), selected_.end());
  return {};
}

runel::Result<RunDefaults> Selector::runDefaults(bool waveGiven) const {
  RunDefaults result;
  const std::string* waveOf = nullptr;
  for (const auto& [name, run] : named_) {
    takeSmaller(result.jobs, run.jobs);
    takeSmaller(result.maxFail, run.maxFail);
    if (!waveGiven && run.wave && result.wave && *run.wave != *result.wave) {
      return selectionError("the waves of " + *waveOf + " (" + *result.wave + ") and " + name +
                            " (" + *run.wave + ") differ: choose with --wave");
    }
    if (run.wave && !result.wave) {
      result.wave = run.wave;
      waveOf = &name;
    }
  }
  if (inventory_) {
    const RunDefaults& common = inventory_->defaults().run;
    result.jobs = result.jobs ? result.jobs : common.jobs;
    result.maxFail = result.maxFail ? result.maxFail : common.maxFail;
    result.wave = result.wave ? result.wave : common.wave;
  }
  return result;
}

runel::Result<Selected> Selector::find(const std::string& name) const {
  const InventoryDevice* named = inventory_ ? inventory_->device(name) : nullptr;
  if (named != nullptr) {
    return Selected{named->address, named};
  }
  const runel::Result<runel::Address> address = parseAddress(name);
  if (!address) {
    return address.error();
  }
  return Selected{*address, inventory_ ? inventory_->device(*address) : nullptr};
}

runel::Result<std::vector<std::string>> Selector::expand(const std::string& list) const {
  runel::Result<std::vector<std::string>> names = expandList(list);
  if (!names || std::find(names->begin(), names->end(), kAllConnected) == names->end()) {
    return names;
  }
  const runel::Result<std::vector<std::string>> connected = connected_();
  if (!connected) {
    return connected.error();
  }
  std::vector<std::string> all;
  for (const std::string& name : *names) {
    if (name != kAllConnected) {
      all.push_back(name);
      continue;
    }
    for (const std::string& one : *connected) {
      all.push_back("@" + one);
    }
  }
  return all;
}

void Selector::add(Selected selected) {
  if (known_.insert(addressKey(selected.address)).second) {
    selected_.push_back(std::move(selected));
  }
}

runel::Result<runel::Address> parseAddress(const std::string& text) {
  runel::Result<runel::Address> address = runel::Address::parse(text);
  if (!address || address->isBehindMaster()) {
    return address;
  }
  return runel::Address(address->host(), address->port());
}

}  // namespace runelctl
