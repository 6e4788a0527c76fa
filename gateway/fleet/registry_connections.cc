// SPDX-License-Identifier: Apache-2.0
// Which connection is which device.
#include <algorithm>

#include "gateway/fleet/registry_data.h"
#include "gateway/fleet/text.h"

namespace runelgw {
namespace {

constexpr std::size_t kLongestReason = 200;
// Each decision looks at all claims of an identity. A connection at the pin is added up to a higher
// limit, so that others cannot keep the device out.
constexpr std::size_t kMostClaims = 16;
constexpr std::size_t kMostClaimsAtPin = 64;

std::string textOf(const Place& place) {
  return place.host + ":" + std::to_string(place.port);
}

Claimant claimant(const std::string& hostid, const Place& place) {
  return {hostid, place.host, place.certificate};
}

Reason reasonOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::denied:
      return Reason::denied;
    case Verdict::waiting:
      return Reason::waiting;
    case Verdict::quarantined:
      return Reason::quarantined;
    case Verdict::work:
      break;
  }
  return Reason::none;
}

DeviceState stateOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::denied:
      return DeviceState::denied;
    case Verdict::waiting:
      return DeviceState::waiting;
    case Verdict::quarantined:
      return DeviceState::quarantined;
    case Verdict::work:
      break;
  }
  return DeviceState::online;
}

EventType typeOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::denied:
      return EventType::denied;
    case Verdict::waiting:
      return EventType::waiting;
    default:
      return EventType::quarantined;
  }
}

std::string explain(Verdict verdict, const Standing& standing, const Claim& claim) {
  switch (verdict) {
    case Verdict::denied:
      return " is denied";
    case Verdict::waiting:
      return " waits for approval";
    default:
      return matchesPin(standing, claim) ? " is not the only connection that claims to be it"
                                         : " does not match its pin";
  }
}

}  // namespace

std::optional<runel::Milliseconds> Registry::Data::silenceFor(const Place& place) const {
  if (listed({"", place.host, place.certificate}) == AccessList::Match::denied) {
    return std::nullopt;
  }
  const runel::Clock::time_point now = timeline.steady();
  if (!cautiousUntil || now >= *cautiousUntil) {
    return runel::Milliseconds(0);
  }
  const bool known = knownPlaces.count("a" + place.host) > 0 ||
                     (!place.certificate.empty() && knownPlaces.count("c" + place.certificate) > 0);
  if (!known && !settings.cautionForUnknownPlaces) {
    return runel::Milliseconds(0);
  }
  return std::chrono::duration_cast<runel::Milliseconds>(*cautiousUntil - now) +
         runel::Milliseconds(1);
}

AccessList::Match Registry::Data::listed(const Claimant& who) const {
  return std::max(settings.access.find(who), access.find(who));
}

Standing Registry::Data::standing(const Entry& entry) const {
  return {settings.newDevices, entry.decision, entry.device.pinAddress,
          entry.device.pinCertificate};
}

void Registry::Data::connected(const Place& place, const std::string& hostid,
                               const std::string& deviceType) {
  if (connections.count(place) > 0) {
    lost(place, "replaced by another connection from the same place");
  }
  Connection& connection = connections[place];
  connection.place = place;
  connection.hostid = hostid;
  connection.deviceType = deviceTypeOf(deviceType);
  connection.since = timeline.now();
  identify(connection);
}

// Finds or adds the device of a connection without one.
void Registry::Data::identify(Connection& connection) {
  const Claimant who = claimant(connection.hostid, connection.place);
  connection.listed = listed(who);
  const auto found = byIdentity.find(identityOf(who));
  Entry* entry = found == byIdentity.end() ? nullptr : found->second;
  if (entry == nullptr) {
    const std::string why = refusal(connection);
    if (!why.empty()) {
      refuse(connection, why);
      return;
    }
    entry = &addDevice(connection);
  }
  const bool atPin = matchesPin(
      standing(*entry), {connection.place.host, connection.place.certificate, connection.listed});
  if (entry->claims.size() >= (atPin ? kMostClaimsAtPin : kMostClaims)) {
    refuse(connection, "too many connections claim to be " + entry->device.name);
    return;
  }
  connection.entry = entry;
  entry->claims.push_back(&connection);
  reassess(*entry);
}

// Why its device is not added; empty if it may be.
std::string Registry::Data::refusal(const Connection& connection) const {
  if (connection.listed == AccessList::Match::denied) {
    return "it is on the deny list";
  }
  const bool allowed = connection.listed == AccessList::Match::allowed;
  if (settings.newDevices == NewDevices::refused && !allowed) {
    return "it is not on the allow list";
  }
  if (devices.size() >= settings.mostDevices) {
    return "there are " + std::to_string(settings.mostDevices) + " devices already";
  }
  const std::size_t waiting = counts[static_cast<std::size_t>(DeviceState::waiting)];
  if (settings.newDevices == NewDevices::wait && !allowed && waiting >= settings.mostWaiting) {
    return std::to_string(settings.mostWaiting) + " devices wait for approval already";
  }
  return "";
}

void Registry::Data::refuse(Connection& connection, const std::string& why) {
  if (connection.verdict) {
    return;  // it is silent already
  }
  connection.verdict = Verdict::denied;
  if (link != nullptr) {
    link->silence(connection.place, Reason::denied);
  }
  events.publish(EventType::refused, 0, "", textOf(connection.place) + ": " + why);
}

Registry::Data::Entry& Registry::Data::addDevice(const Connection& connection) {
  const DeviceId id = nextDevice++;
  Entry& entry = *devices.emplace(id, std::make_unique<Entry>()).first->second;
  Device& device = entry.device;
  const Place& place = connection.place;
  device.id = id;
  device.hostid = connection.hostid;
  device.address = place.host;
  device.port = place.port;
  device.certificate = place.certificate;
  device.deviceType = connection.deviceType;
  if (settings.pinTo != PinTo::nothing) {
    device.pinCertificate = place.certificate;
    device.pinAddress =
        place.certificate.empty() && settings.pinTo == PinTo::best ? place.host : "";
  }
  device.firstSeen = device.lastSeen = timeline.now();
  entry.notedFirst = entry.notedSeen = true;
  entry.decision = settings.newDevices == NewDevices::wait ? Decision::waiting : Decision::approved;
  byIdentity.emplace(identityOf(claimant(device.hostid, place)), &entry);
  ++counts[static_cast<std::size_t>(device.state)];
  rename(entry);
  publish(EventType::added, entry, textOf(place));
  note(entry, "added", textOf(place));
  changed(entry, "");
  return entry;
}

std::vector<Verdict> Registry::Data::judgeClaims(const Entry& entry) const {
  std::vector<Claim> claims;
  for (const Connection* const connection : entry.claims) {
    claims.push_back({connection->place.host, connection->place.certificate, connection->listed});
  }
  return judge(standing(entry), claims);
}

// The state of a device without a connection that claims it: that of its last place.
DeviceState Registry::Data::idleState(const Entry& entry) const {
  const Device& device = entry.device;
  const Claimant who{device.hostid, device.address, device.certificate};
  const Verdict verdict =
      judge(standing(entry), {{who.address, who.certificate, listed(who)}}).front();
  const bool decided = verdict == Verdict::denied || verdict == Verdict::waiting;
  return decided ? stateOf(verdict) : DeviceState::offline;
}

// Decides about all connections of a device again, and tells what has changed.
void Registry::Data::reassess(Entry& entry) {
  const std::vector<Verdict> verdicts = judgeClaims(entry);
  // Silence comes first: two connections never work at the same time.
  for (const bool working : {false, true}) {
    for (std::size_t at = 0; at < verdicts.size(); ++at) {
      if ((verdicts[at] == Verdict::work) == working) {
        tell(entry, *entry.claims[at], verdicts[at]);
      }
    }
  }
  DeviceState state = idleState(entry);
  if (entry.working != nullptr) {
    state = DeviceState::online;
  } else {
    for (const Verdict better : {Verdict::quarantined, Verdict::waiting}) {
      const bool has = std::find(verdicts.begin(), verdicts.end(), better) != verdicts.end();
      state = has ? stateOf(better) : state;
    }
  }
  if (entry.device.state != state) {
    setState(entry, state);
    changed(entry, "state");
  }
}

void Registry::Data::tell(Entry& entry, Connection& connection, Verdict verdict) {
  if (connection.verdict == verdict) {
    return;
  }
  connection.verdict = verdict;
  if (verdict == Verdict::work) {
    goOnline(entry, connection);
    return;
  }
  if (link != nullptr) {
    link->silence(connection.place, reasonOf(verdict));
  }
  if (entry.working == &connection) {
    goOffline(entry);
  }
  const Claim claim{connection.place.host, connection.place.certificate, connection.listed};
  const std::string why = textOf(connection.place) + explain(verdict, standing(entry), claim);
  publish(typeOf(verdict), entry, why);
  note(entry, nameOf(typeOf(verdict)), why);
}

void Registry::Data::goOnline(Entry& entry, Connection& connection) {
  Device& device = entry.device;
  entry.working = &connection;
  device.address = connection.place.host;
  device.port = connection.place.port;
  device.certificate = connection.place.certificate;
  if (!connection.deviceType.empty()) {
    device.deviceType = connection.deviceType;
  }
  device.connectedSince = device.lastSeen = timeline.now();
  entry.notedSeen = true;
  ++device.connects;
  setState(entry, DeviceState::online);
  rename(entry);
  if (link != nullptr) {
    link->bind(connection.place, device.id);
  }
  publish(EventType::connected, entry, textOf(connection.place));
  note(entry, "connected", textOf(connection.place));
  changed(entry, "");
}

// Its connection ended, or may no longer be used.
void Registry::Data::goOffline(Entry& entry) {
  entry.working = nullptr;
  entry.device.connectedSince = 0;
  entry.device.lastSeen = timeline.now();
  entry.notedSeen = true;
  ++entry.epoch;
  entry.bridges = 0;
  entry.device.agent = false;
  setState(entry, DeviceState::offline);
  saver.deviceChanged(entry.device.id);
}

void Registry::Data::lost(const Place& place, const std::string& why) {
  const auto found = connections.find(place);
  if (found == connections.end()) {
    return;
  }
  Connection* const connection = &found->second;
  Entry* const entry = connection->entry;
  if (entry == nullptr) {
    connections.erase(found);
    return;
  }
  entry->claims.erase(std::find(entry->claims.begin(), entry->claims.end(), connection));
  if (entry->claims.empty()) {
    entry->claims.shrink_to_fit();
  }
  const bool working = entry->working == connection;
  connections.erase(found);
  if (working) {
    goOffline(*entry);
    ++entry->device.losses;
    entry->device.lastLoss = timeline.now();
    entry->notedLoss = true;
    entry->device.lastLossReason = printable(why, kLongestReason);
    publish(EventType::lost, *entry, entry->device.lastLossReason);
    note(*entry, "lost", entry->device.lastLossReason);
    changed(*entry, "");
  }
  reassess(*entry);
}

// Looks again at the connections that no device has.
void Registry::Data::retryRefused() {
  for (auto& [place, connection] : connections) {
    connection.listed = listed(claimant(connection.hostid, place));
    if (connection.entry == nullptr && refusal(connection).empty()) {
      connection.verdict.reset();
      identify(connection);
    }
  }
}

void Registry::Data::reassessAll() {
  retryRefused();
  for (const auto& [id, entry] : devices) {
    reassess(*entry);
  }
}

void Registry::Data::countBridge(Entry& entry, bool connected) {
  if (!connected && entry.bridges == 0) {
    return;
  }
  entry.bridges = connected ? entry.bridges + 1 : entry.bridges - 1;
  const bool agent = entry.bridges > 0;
  if (entry.device.agent != agent) {
    entry.device.agent = agent;
    publish(EventType::agent, entry, agent ? "connected" : "lost");
    note(entry, "agent", agent ? "connected" : "lost");
    changed(entry, "agent");
  }
}

void Registry::Data::agentConnected(const Place& place, DeviceId device) {
  Entry* const entry = at(device);
  Bridge& bridge = bridges[place];
  if (entry == nullptr || entry->working == nullptr || bridge.device != 0) {
    return;
  }
  bridge = {device, entry->epoch};
  heard(*entry);
  countBridge(*entry, true);
}

void Registry::Data::agentLost(const Place& place) {
  const auto found = bridges.find(place);
  if (found == bridges.end()) {
    return;
  }
  const Bridge bridge = found->second;
  bridges.erase(found);
  Entry* const entry = at(bridge.device);
  if (entry != nullptr && entry->epoch == bridge.epoch) {
    countBridge(*entry, false);
  }
}

void Registry::Data::clause(const Place& place, DeviceId device, const std::string& text) {
  const auto bridge = bridges.find(place);
  if (device == 0 && bridge != bridges.end()) {
    device = bridge->second.device;
  }
  Entry* const entry = at(device);
  if (entry == nullptr) {
    events.publish(EventType::clause, 0, textOf(place), text);
    return;
  }
  agentConnected(place, device);
  heard(*entry);
  publish(EventType::clause, *entry, text);
  saver.add(Append<ClauseRecord>{{0, device, timeline.now(), text}});
}

}  // namespace runelgw
