// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/registry.h"

#include <algorithm>

#include "gateway/fleet/registry_data.h"
#include "gateway/fleet/text.h"
#include "text/nearest.h"

namespace runelgw {
namespace {

// Rules that depend on time are evaluated once in so many seconds for each device.
constexpr std::size_t kRenewal = 60;

}  // namespace

Registry::Data::Entry* Registry::Data::at(DeviceId id) const {
  const auto found = devices.find(id);
  return found == devices.end() ? nullptr : found->second.get();
}

runel::Result<Registry::Data::Entry*> Registry::Data::known(DeviceId id) const {
  Entry* const entry = at(id);
  return entry == nullptr ? runel::Result<Entry*>(failure("no such device")) : entry;
}

Query::Context Registry::Data::context() const {
  return {timeline.now(), [this](const std::string& name) { return groups.find(name); }, true};
}

std::vector<const Device*> Registry::Data::select(const Query& query) const {
  const Query::Context now = context();
  std::vector<const Device*> selected;
  for (const auto& [name, entry] : byName) {
    if (query.matches(entry->device, now)) {
      selected.push_back(&entry->device);
    }
  }
  return selected;
}

bool Registry::Data::exists(const Query::Named& named, const Seen& seen) const {
  const bool device =
      std::any_of(named.names.begin(), named.names.end(), [&](const std::string& name) {
        const auto found = byName.find(name);
        return found != byName.end() && (!seen || seen(found->second->device));
      });
  if (device || named.names.empty() || !named.mayBeTag) {
    return device || named.names.empty();
  }
  return std::any_of(devices.begin(), devices.end(), [&](const auto& each) {
    const Device& one = each.second->device;
    return one.tags.count(named.names.front()) > 0 && (!seen || seen(one));
  });
}

runel::Result<void> Registry::Data::checkNames(const Query& query, const Seen& seen) const {
  for (const Query::Named& named : query.named()) {
    if (exists(named, seen)) {
      continue;
    }
    std::vector<std::string> names;
    for (const auto& [name, entry] : byName) {
      if (!seen || seen(entry->device)) {
        names.push_back(name);
      }
    }
    return failure((named.names.size() == 1 ? "no device '" : "no device of '") + named.text + "'" +
                   zell::suggestion(named.text, names));
  }
  return {};
}

void Registry::Data::tick() {
  shiftTimes(timeline.check());
  if (cautiousUntil && timeline.steady() >= *cautiousUntil) {
    cautiousUntil.reset();
    knownPlaces = {};
  }
  saveSeen();
  renewRules();
  reserveEvents();
  saver.writeSome();
}

// Times that were noted before a leap of the clock count as noted by the clock as it is now.
void Registry::Data::shiftTimes(std::int64_t leap) {
  if (leap == 0) {
    return;
  }
  events.publish(EventType::problem, 0, "",
                 "the clock was set " + std::string(leap > 0 ? "forward" : "back") + " by " +
                     std::to_string(std::abs(leap) / 1000) + " s");
  const std::int64_t now = timeline.now();
  const auto shift = [&](std::int64_t& time, bool noted) {
    if (noted && time != 0) {
      time = std::clamp<std::int64_t>(time + leap, 1, now);
    }
    return noted && time != 0;
  };
  for (auto& [id, entry] : devices) {
    bool shifted = shift(entry->device.firstSeen, entry->notedFirst);
    shifted = shift(entry->device.lastSeen, entry->notedSeen) || shifted;
    shifted = shift(entry->device.lastLoss, entry->notedLoss) || shifted;
    shifted = shift(entry->device.connectedSince, true) || shifted;
    if (shifted) {
      saver.deviceChanged(id);
    }
  }
  for (auto& [place, connection] : connections) {
    shift(connection.since, true);
  }
}

void Registry::Data::saveSeen() {
  const runel::Clock::time_point now = timeline.steady();
  while (!seenToSave.empty() && seenToSave.front().first <= now) {
    Entry* const entry = at(seenToSave.front().second);
    if (entry != nullptr && entry->seenQueued) {
      entry->seenQueued = false;
      saver.deviceChanged(entry->device.id);
    }
    seenToSave.pop_front();
  }
}

void Registry::Data::renewRules() {
  if (!rules.dependOnTime(groups)) {
    return;
  }
  std::size_t left = devices.size() / kRenewal + 1;
  auto next = devices.upper_bound(lastRenewed);
  for (; left > 0 && !devices.empty(); --left) {
    if (next == devices.end()) {
      next = devices.begin();
    }
    lastRenewed = next->first;
    retag(*next->second);
    ++next;
  }
}

Registry::Registry(RegistrySettings settings, Store& store, Clocks clocks, const Snapshot& snapshot,
                   bool orderly)
    : data_(std::make_unique<Data>(std::move(settings), store, std::move(clocks), snapshot,
                                   orderly)) {}

Registry::~Registry() = default;

void Registry::use(LinkControl* link) {
  data_->link = link;
}

const Device* Registry::find(DeviceId id) const {
  const Data::Entry* const entry = data_->at(id);
  return entry == nullptr ? nullptr : &entry->device;
}

const Device* Registry::find(const std::string& name) const {
  const auto found = data_->byName.find(name);
  return found == data_->byName.end() ? nullptr : &found->second->device;
}

std::vector<const Device*> Registry::select(const Query& query) const {
  return data_->select(query);
}

bool Registry::matches(const Device& device, const Query& query) const {
  return query.matches(device, data_->context());
}

bool Registry::inGroup(const Device& device, const std::string& group) const {
  const Query* const query = data_->groups.find(group);
  return query != nullptr && matches(device, *query);
}

runel::Result<Query> Registry::query(const std::string& text, const Seen& seen) const {
  runel::Result<Query> query = Query::parse(text);
  if (!query) {
    return query;
  }
  if (const runel::Result<void> checked = data_->groups.check(*query); !checked) {
    return checked.error();
  }
  if (const runel::Result<void> checked = data_->checkNames(*query, seen); !checked) {
    return checked.error();
  }
  return query;
}

Query::Context Registry::context() const {
  return data_->context();
}

std::size_t Registry::size() const {
  return data_->devices.size();
}

const std::array<std::size_t, 5>& Registry::counts() const {
  return data_->counts;
}

std::vector<DeviceConnection> Registry::connections(DeviceId id) const {
  std::vector<DeviceConnection> connections;
  if (const Data::Entry* const entry = data_->at(id)) {
    for (const Data::Connection* const one : entry->claims) {
      connections.push_back({one->place, *one->verdict, one->since});
    }
  }
  return connections;
}

const Groups& Registry::groups() const {
  return data_->groups;
}

const TagRules& Registry::rules() const {
  return data_->rules;
}

std::vector<AccessRecord> Registry::accessEntries() const {
  return data_->access.entries();
}

void Registry::heard(DeviceId id) {
  if (Data::Entry* const entry = data_->at(id)) {
    data_->heard(*entry);
  }
}

void Registry::learn(DeviceId id, const Facts& facts) {
  if (Data::Entry* const entry = data_->at(id)) {
    data_->learn(*entry, facts);
  }
}

Events& Registry::events() {
  return data_->events;
}

const Timeline& Registry::timeline() const {
  return data_->timeline;
}

void Registry::flush(Store::Done done) {
  data_->saver.write(std::move(done));
}

void Registry::tick() {
  data_->tick();
}

std::optional<runel::Milliseconds> Registry::silenceFor(const Place& place) {
  return data_->silenceFor(place);
}

void Registry::connected(const Place& place, const std::string& hostid,
                         const std::string& deviceType) {
  data_->connected(place, hostid, deviceType);
}

void Registry::lost(const Place& place, const std::string& why) {
  data_->lost(place, why);
}

void Registry::agentConnected(const Place& bridge, DeviceId device) {
  data_->agentConnected(bridge, device);
}

void Registry::agentLost(const Place& bridge, DeviceId /*device*/) {
  data_->agentLost(bridge);
}

void Registry::clause(const Place& bridge, DeviceId device, const std::string& text) {
  data_->clause(bridge, device, text);
}

void Registry::refusedConnection(const Place& place, const std::string& why) {
  data_->events.publish(EventType::refused, 0, "",
                        place.host + ":" + std::to_string(place.port) + ": " + why);
}

void Registry::problem(const std::string& text) {
  data_->events.publish(EventType::problem, 0, "", text);
}

}  // namespace runelgw
