// SPDX-License-Identifier: Apache-2.0
#include "client/master/connection_roles.h"

#include <algorithm>

namespace runel {

bool ConnectionRoles::Place::hasSlave() const {
  return std::any_of(members.begin(), members.end(),
                     [](const auto& entry) { return entry.second.role == Role::slave; });
}

ConnectionRoles::Role ConnectionRoles::opened(Id id, const std::string& address, Time now) {
  Place& place = places_[address];
  const Role role = place.hasSlave() ? Role::further : Role::slave;
  place.members[id] = {role, false, now};
  addresses_[id] = address;
  return role;
}

void ConnectionRoles::spoke(Id id) {
  places_.at(addresses_.at(id)).members.at(id).spoke = true;
}

void ConnectionRoles::closed(Id id, Time now) {
  const auto address = addresses_.find(id);
  Place& place = places_.at(address->second);
  const bool wasSlave = place.members.at(id).role == Role::slave;
  place.members.erase(id);
  if (place.members.empty()) {
    places_.erase(address->second);
  } else if (wasSlave && !place.hasSlave()) {
    place.slaveLost = now;
  }
  addresses_.erase(address);
}

// When a connection becomes a slave connection in the current state. A connection that has sent
// data never does.
std::optional<ConnectionRoles::Time> ConnectionRoles::dueTime(const Place& place,
                                                              const Member& member) const {
  if (member.role == Role::slave || member.spoke) {
    return std::nullopt;
  }
  std::optional<Time> due;
  if (!place.hasSlave()) {
    due = place.slaveLost + rules_.outlive;
  }
  if (rules_.shared) {
    const Time silent = member.opened + *rules_.shared;
    due = due ? std::min(*due, silent) : silent;
  }
  return due;
}

// Sequentially: when a connection becomes the slave connection of its address, the others do not.
std::vector<ConnectionRoles::Id> ConnectionRoles::due(Time now) {
  std::vector<Id> found;
  for (auto& [address, place] : places_) {
    for (auto& [id, member] : place.members) {
      const std::optional<Time> time = dueTime(place, member);
      if (time && *time <= now) {
        member.role = Role::slave;
        found.push_back(id);
      }
    }
  }
  return found;
}

std::optional<ConnectionRoles::Time> ConnectionRoles::nextDue() const {
  std::optional<Time> next;
  for (const auto& [address, place] : places_) {
    for (const auto& [id, member] : place.members) {
      const std::optional<Time> time = dueTime(place, member);
      if (time && (!next || *time < *next)) {
        next = time;
      }
    }
  }
  return next;
}

std::vector<ConnectionRoles::Id> ConnectionRoles::slavesAt(const std::string& address) const {
  std::vector<Id> found;
  const auto place = places_.find(address);
  if (place != places_.end()) {
    for (const auto& [id, member] : place->second.members) {
      if (member.role == Role::slave) {
        found.push_back(id);
      }
    }
  }
  return found;
}

std::size_t ConnectionRoles::countAt(const std::string& address) const {
  const auto place = places_.find(address);
  return place == places_.end() ? 0 : place->second.members.size();
}

}  // namespace runel
