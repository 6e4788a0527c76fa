// SPDX-License-Identifier: Apache-2.0
#include "client/master/connection_roles.h"

#include <algorithm>

namespace runel {

ConnectionRoles::Role ConnectionRoles::opened(Id id, const std::string& address, Time now,
                                              bool shared) {
  Places::value_type& place = *places_.try_emplace(address).first;
  Member& member = members_[id];
  member.place = &place;
  member.shared = shared && rules_.shared.has_value();
  member.time = now;
  ++place.second.count;
  if (isFree(place.second)) {
    useAsSlave(id);
  } else {
    changeSilent(id, member, true);
    watchPlace(place);
  }
  return member.role;
}

void ConnectionRoles::wait(Id id, Time until) {
  Member& member = members_.at(id);
  member.role = Role::further;
  member.waits = true;
  member.time = until;
  member.place->second.slaves.erase(id);
  ++member.place->second.waiting;
  dueWaiting_.emplace(until, id);
  watchPlace(*member.place);
}

void ConnectionRoles::endWait(Id id, Member& member) {
  if (member.waits) {
    dueWaiting_.erase({member.time, id});
    member.waits = false;
    --member.place->second.waiting;
  }
}

// A slave connection that speaks was not written to yet: it is a bridge, and the slave connection
// is one that only the device knows.
void ConnectionRoles::spoke(Id id) {
  Member& member = members_.at(id);
  Place& place = member.place->second;
  if (member.waits || member.role == Role::slave) {
    member.orphan = true;
    ++place.orphans;
  }
  endWait(id, member);
  member.role = Role::further;
  place.slaves.erase(id);
  changeSilent(id, member, false);
  watchPlace(*member.place);
}

void ConnectionRoles::closed(Id id, Time now) {
  const auto member = members_.find(id);
  Places::value_type& entry = *member->second.place;
  Place& place = entry.second;
  const bool held = !isFree(place);
  place.orphans -= member->second.orphan ? 1 : 0;
  endWait(id, member->second);
  changeSilent(id, member->second, false);
  place.slaves.erase(id);
  if (held && isFree(place)) {
    place.slaveLost = now;
  }
  watchPlace(entry);
  members_.erase(member);
  if (--place.count == 0) {
    places_.erase(entry.first);
  }
}

// Only a silent connection may become a slave connection.
void ConnectionRoles::changeSilent(Id id, const Member& member, bool silent) {
  const auto due = std::make_pair(member.time + rules_.shared.value_or(Milliseconds(0)), id);
  if (silent) {
    member.place->second.silent.insert(id);
    if (member.shared) {
      dueSilent_.insert(due);
    }
  } else {
    member.place->second.silent.erase(id);
    dueSilent_.erase(due);
  }
}

// An address without a slave connection gets one when a silent connection has outlived the old one.
void ConnectionRoles::watchPlace(const Places::value_type& place) {
  auto due = std::make_pair(place.second.slaveLost + rules_.outlive, place.first);
  if (isFree(place.second) && !place.second.silent.empty()) {
    dueOrphan_.insert(std::move(due));
  } else {
    dueOrphan_.erase(due);
  }
}

void ConnectionRoles::useAsSlave(Id id) {
  Member& member = members_.at(id);
  changeSilent(id, member, false);
  member.role = Role::slave;
  member.place->second.slaves.insert(id);
  watchPlace(*member.place);
}

// When a connection becomes the slave connection of its address, the others do not.
std::vector<ConnectionRoles::Id> ConnectionRoles::due(Time now) {
  std::vector<Id> found;
  while (!dueSilent_.empty() && dueSilent_.begin()->first <= now) {
    found.push_back(dueSilent_.begin()->second);
    useAsSlave(found.back());
  }
  while (!dueOrphan_.empty() && dueOrphan_.begin()->first <= now) {
    found.push_back(*places_.at(dueOrphan_.begin()->second).silent.begin());
    useAsSlave(found.back());
  }
  return found;
}

// The first one of an address is its slave connection, and the others follow it.
std::vector<ConnectionRoles::Waited> ConnectionRoles::waited(Time now) {
  std::vector<Waited> found;
  while (!dueWaiting_.empty() && dueWaiting_.begin()->first <= now) {
    const Id id = dueWaiting_.begin()->second;
    Member& member = members_.at(id);
    endWait(id, member);
    if (member.place->second.slaves.empty()) {
      useAsSlave(id);
    } else {
      changeSilent(id, member, true);
    }
    watchPlace(*member.place);
    found.push_back({id, member.role});
  }
  return found;
}

std::optional<ConnectionRoles::Time> ConnectionRoles::nextDue() const {
  std::optional<Time> next;
  if (!dueSilent_.empty()) {
    next = dueSilent_.begin()->first;
  }
  if (!dueWaiting_.empty()) {
    next = next ? std::min(*next, dueWaiting_.begin()->first) : dueWaiting_.begin()->first;
  }
  if (!dueOrphan_.empty()) {
    const Time orphan = dueOrphan_.begin()->first;
    next = next ? std::min(*next, orphan) : orphan;
  }
  return next;
}

std::vector<ConnectionRoles::Id> ConnectionRoles::slavesAt(const std::string& address) const {
  const auto place = places_.find(address);
  return place == places_.end()
             ? std::vector<Id>()
             : std::vector<Id>(place->second.slaves.begin(), place->second.slaves.end());
}

std::optional<ConnectionRoles::Id> ConnectionRoles::onlySlaveAt(const std::string& address) const {
  const auto place = places_.find(address);
  if (place == places_.end() || place->second.slaves.size() != 1) {
    return std::nullopt;
  }
  return *place->second.slaves.begin();
}

std::size_t ConnectionRoles::countAt(const std::string& address) const {
  const auto place = places_.find(address);
  return place == places_.end() ? 0 : place->second.count;
}

}  // namespace runel
