// SPDX-License-Identifier: Apache-2.0
// What changes of one device, and who is told.
#include <algorithm>

#include "client/master/access_list.h"
#include "gateway/fleet/registry_data.h"
#include "gateway/fleet/text.h"

namespace runelgw {
namespace {

constexpr std::size_t kLongestKernel = 128;
constexpr runel::Milliseconds kSeenDelay{60000};
// The free space changes all the time: a part below this is not an event.
constexpr std::uint64_t kFreePart = 16;

bool isNotable(const std::optional<std::uint64_t>& before, std::uint64_t now) {
  const std::uint64_t difference = before ? std::max(*before, now) - std::min(*before, now) : 0;
  return !before || difference > *before / kFreePart;
}

}  // namespace

void Registry::Data::publish(EventType type, const Entry& entry, const std::string& text) {
  events.publish(type, entry.device.id, entry.device.name, text);
}

void Registry::Data::note(const Entry& entry, const std::string& event, const std::string& reason) {
  saver.add(Append<HistoryRecord>{{0, entry.device.id, timeline.now(), event, reason}});
}

void Registry::Data::changed(Entry& entry, const std::string& what) {
  saver.deviceChanged(entry.device.id);
  if (!what.empty()) {
    publish(EventType::changed, entry, what);
  }
  retag(entry);
}

void Registry::Data::setState(Entry& entry, DeviceState state) {
  if (entry.device.state == state) {
    return;
  }
  --counts[static_cast<std::size_t>(entry.device.state)];
  ++counts[static_cast<std::size_t>(state)];
  entry.device.state = state;
}

std::string Registry::Data::nameFor(const Entry& entry) const {
  const auto isFree = [&](const std::string& name) {
    const auto found = byName.find(name);
    return !name.empty() && (found == byName.end() || found->second == &entry);
  };
  const Device& device = entry.device;
  if (runel::usableName(device.hostid) && isFree(device.hostid)) {
    return device.hostid;
  }
  if (isFree(device.address)) {
    return device.address;
  }
  const std::string place = device.address + ":" + std::to_string(device.port);
  // '#' is in no other name.
  return isFree(place) ? place : "#" + std::to_string(device.id);
}

void Registry::Data::rename(Entry& entry) {
  const std::string name = nameFor(entry);
  if (name == entry.device.name) {
    return;
  }
  const std::string before = entry.device.name;
  byName.erase(before);
  entry.device.name = name;
  byName.emplace(name, &entry);
  if (!before.empty()) {
    publish(EventType::changed, entry, "name");
    note(entry, "renamed", "it was " + before);
  }
}

void Registry::Data::retag(Entry& entry) {
  Device& device = entry.device;
  if (rules.empty() && device.ruleTags.empty()) {
    return;
  }
  const auto wanted = rules.tagsFor(device, context());
  bool differs = false;
  for (const std::string& name : device.ruleTags) {
    if (wanted.count(name) == 0) {
      device.tags.erase(name);
      saver.add(RemoveTag{device.id, name});
      differs = true;
    }
  }
  std::vector<std::string> names;
  for (const auto& [name, tag] : wanted) {
    names.push_back(name);
    const auto found = device.tags.find(name);
    if (found == device.tags.end() || found->second != tag.value) {
      device.tags[name] = tag.value;
      saver.add(Save<TagRecord>{{device.id, name, tag.value, tag.rule}});
      differs = true;
    }
  }
  names.shrink_to_fit();
  device.ruleTags = std::move(names);
  if (differs) {
    publish(EventType::changed, entry, "tags");
  }
}

void Registry::Data::retagAll() {
  for (const auto& [id, entry] : devices) {
    retag(*entry);
  }
}

void Registry::Data::heard(Entry& entry) {
  entry.device.lastSeen = timeline.now();
  entry.notedSeen = true;
  if (!entry.seenQueued) {
    entry.seenQueued = true;
    seenToSave.emplace_back(timeline.steady() + kSeenDelay, entry.device.id);
  }
}

void Registry::Data::learn(Entry& entry, const Facts& facts) {
  Device& device = entry.device;
  std::string what;
  const auto set = [&](std::string& property, const std::string& value, const char* name) {
    if (property != value) {
      property = value;
      what += (what.empty() ? "" : ",") + std::string(name);
    }
  };
  if (facts.deviceType) {
    set(device.deviceType, deviceTypeOf(*facts.deviceType), "type");
  }
  if (facts.kernel) {
    set(device.kernel, printable(*facts.kernel, kLongestKernel), "kernel");
  }
  heard(entry);
  if (facts.freeBytes && device.freeBytes != facts.freeBytes) {
    if (isNotable(device.freeBytes, *facts.freeBytes)) {
      what += what.empty() ? "free" : ",free";
    }
    device.freeBytes = facts.freeBytes;  // saved with the time
  }
  if (!what.empty()) {
    changed(entry, what);
  } else {
    retag(entry);
  }
}

}  // namespace runelgw
