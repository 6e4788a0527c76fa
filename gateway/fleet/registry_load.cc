// SPDX-License-Identifier: Apache-2.0
// The registry and what the store has of it.
#include <algorithm>
#include <cstdlib>

#include "gateway/fleet/registry_data.h"
#include "gateway/fleet/text.h"

namespace runelgw {
namespace {

constexpr char kEventsSetting[] = "fleet.events";
// So many events are numbered before the next reservation must be committed.
constexpr std::uint64_t kReserved = 1000000;

std::uint64_t firstEvent(const Snapshot& snapshot) {
  for (const SettingRecord& setting : snapshot.settings) {
    if (setting.name == kEventsSetting) {
      return std::max<std::uint64_t>(1, std::strtoull(setting.value.c_str(), nullptr, 10));
    }
  }
  return 1;
}

}  // namespace

Registry::Data::Data(RegistrySettings chosen, Store& store, Clocks clocks, const Snapshot& snapshot,
                     bool orderly)
    : settings(std::move(chosen)),
      timeline(std::move(clocks)),
      events([this] { return timeline.now(); }, firstEvent(snapshot)),
      reservedEvents(firstEvent(snapshot)),
      saver(
          store, [this](DeviceId id) { return recordOf(id); },
          [this](const std::string& text) { events.publish(EventType::problem, 0, "", text); }) {
  load(snapshot);
  reserveEvents();
  if (!orderly && !devices.empty()) {
    cautiousUntil = timeline.steady() + settings.caution;
    return;
  }
  knownPlaces.clear();
}

void Registry::Data::load(const Snapshot& snapshot) {
  nextDevice = std::max<DeviceId>(1, snapshot.nextDevice);
  for (const AccessRecord& entry : snapshot.access) {
    (void)access.set(entry);  // what is wrong cannot have been stored
  }
  // A group may use a later one.
  std::vector<const GroupRecord*> left;
  for (const GroupRecord& group : snapshot.groups) {
    left.push_back(&group);
  }
  for (std::size_t before = left.size() + 1; !left.empty() && left.size() < before;) {
    before = left.size();
    left.erase(std::remove_if(left.begin(), left.end(),
                              [&](const GroupRecord* group) {
                                return groups.set(group->name, group->query).ok();
                              }),
               left.end());
  }
  for (const TagRuleRecord& rule : snapshot.tagRules) {
    (void)rules.set(rule, groups);
  }
  for (const DeviceRecord& record : snapshot.devices) {
    loadDevice(record);
  }
  loadTags(snapshot.tags);
  for (const auto& [id, entry] : devices) {
    entry->device.state = idleState(*entry);
    ++counts[static_cast<std::size_t>(entry->device.state)];
    retag(*entry);
  }
}

void Registry::Data::loadDevice(const DeviceRecord& record) {
  auto entry = std::make_unique<Entry>();
  // A time may be in the future: the clock may not be set yet.
  const auto past = [](std::int64_t time) { return std::max<std::int64_t>(time, 0); };
  Device& device = entry->device;
  device.id = record.id;
  device.hostid = record.hostid;
  device.address = record.address;
  device.port = record.port;
  device.certificate = record.certificate;
  device.pinAddress = record.pinAddress;
  device.pinCertificate = record.pinCertificate;
  device.firstSeen = past(record.firstSeen);
  device.lastSeen = past(record.lastSeen);
  device.deviceType = record.deviceType;
  device.kernel = record.kernel;
  device.freeBytes = record.freeBytes;
  device.connects = record.connects;
  device.losses = record.losses;
  device.lastLoss = past(record.lastLoss);
  device.lastLossReason = record.lastLossReason;
  entry->decision = record.decision;
  device.name = record.name;
  if (device.name.empty() || byName.count(device.name) > 0) {
    device.name = nameFor(*entry);
  }
  for (const std::string& address : {device.address, device.pinAddress}) {
    knownPlaces.insert("a" + address);
  }
  for (const std::string& certificate : {device.certificate, device.pinCertificate}) {
    knownPlaces.insert("c" + certificate);
  }
  byName.emplace(device.name, entry.get());
  byIdentity.emplace(identityOf({device.hostid, device.address, device.certificate}), entry.get());
  nextDevice = std::max(nextDevice, device.id + 1);
  devices.emplace(device.id, std::move(entry));
}

void Registry::Data::loadTags(const std::vector<TagRecord>& tags) {
  for (const TagRecord& tag : tags) {
    Entry* const entry = at(tag.device);
    if (entry == nullptr) {
      continue;
    }
    entry->device.tags[tag.name] = tag.value;
    std::vector<std::string>& ruleTags = entry->device.ruleTags;
    if (!tag.rule.empty()) {
      ruleTags.insert(std::lower_bound(ruleTags.begin(), ruleTags.end(), tag.name), tag.name);
    }
  }
}

// The ids of events never repeat: a subscriber would miss events and not know it.
void Registry::Data::reserveEvents() {
  if (events.last() + kReserved / 2 >= reservedEvents) {
    reservedEvents = events.last() + kReserved;
    saver.add(Save<SettingRecord>{{kEventsSetting, std::to_string(reservedEvents)}});
  }
}

std::optional<DeviceRecord> Registry::Data::recordOf(DeviceId id) const {
  const Entry* const entry = at(id);
  if (entry == nullptr) {
    return std::nullopt;
  }
  const Device& device = entry->device;
  DeviceRecord record;
  record.id = device.id;
  record.hostid = device.hostid;
  record.name = device.name;
  record.decision = entry->decision;
  record.address = device.address;
  record.port = device.port;
  record.certificate = device.certificate;
  record.pinAddress = device.pinAddress;
  record.pinCertificate = device.pinCertificate;
  record.firstSeen = device.firstSeen;
  record.lastSeen = device.lastSeen;
  record.connectedSince = device.connectedSince;
  record.deviceType = device.deviceType;
  record.kernel = device.kernel;
  record.freeBytes = device.freeBytes;
  record.agent = device.agent;
  record.connects = device.connects;
  record.losses = device.losses;
  record.lastLoss = device.lastLoss;
  record.lastLossReason = device.lastLossReason;
  return record;
}

}  // namespace runelgw
