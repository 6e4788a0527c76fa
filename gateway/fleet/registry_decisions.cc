// SPDX-License-Identifier: Apache-2.0
// What people decide.
#include <algorithm>

#include "gateway/fleet/registry_data.h"
#include "gateway/fleet/text.h"
#include "text/nearest.h"

namespace runelgw {
namespace {

constexpr std::size_t kLongestCertificate = 256;
constexpr std::size_t kMostTags = 64;

}  // namespace

runel::Result<void> Registry::approve(DeviceId id) {
  const auto entry = data_->known(id);
  if (!entry) {
    return entry.error();
  }
  (*entry)->decision = Decision::approved;
  data_->note(**entry, "approved", "");
  data_->changed(**entry, "decision");
  data_->reassess(**entry);
  return {};
}

runel::Result<void> Registry::deny(DeviceId id) {
  const auto entry = data_->known(id);
  if (!entry) {
    return entry.error();
  }
  (*entry)->decision = Decision::denied;
  data_->note(**entry, "denied", "");
  data_->changed(**entry, "decision");
  data_->reassess(**entry);
  return {};
}

runel::Result<void> Registry::forget(DeviceId id) {
  const auto known = data_->known(id);
  if (!known) {
    return known.error();
  }
  Data::Entry& entry = **known;
  if (!entry.claims.empty()) {
    return failure("it is connected, and would be added again: deny it instead");
  }
  --data_->counts[static_cast<std::size_t>(entry.device.state)];
  data_->publish(EventType::forgotten, entry, "");
  data_->byName.erase(entry.device.name);
  const auto identity = data_->byIdentity.find(
      identityOf({entry.device.hostid, entry.device.address, entry.device.certificate}));
  if (identity != data_->byIdentity.end() && identity->second == &entry) {
    data_->byIdentity.erase(identity);
  }
  data_->devices.erase(id);
  data_->saver.deviceForgotten(id);
  return {};
}

runel::Result<void> Registry::pin(DeviceId id, const std::string& address,
                                  const std::string& certificate) {
  const auto entry = data_->known(id);
  if (!entry) {
    return entry.error();
  }
  if (!address.empty() && !parseAddress(address)) {
    return failure("'" + printable(address, 64) + "' is not an IPv4 address");
  }
  if (certificate.size() > kLongestCertificate ||
      firstUnprintable(certificate) != std::string::npos) {
    return failure("invalid name of a certificate");
  }
  Device& device = (*entry)->device;
  device.pinAddress = address;
  device.pinCertificate = certificate;
  std::string pin = address + (address.empty() || certificate.empty() ? "" : " and ") + certificate;
  data_->note(**entry, pin.empty() ? "unpinned" : "pinned", pin);
  data_->changed(**entry, "pin");
  data_->reassess(**entry);
  data_->retryRefused();
  return {};
}

runel::Result<void> Registry::unpin(DeviceId id) {
  return pin(id, "", "");
}

runel::Result<void> Registry::pinToConnection(DeviceId id) {
  const auto entry = data_->known(id);
  if (!entry) {
    return entry.error();
  }
  std::vector<const Place*> places;
  for (const Data::Connection* const connection : (*entry)->claims) {
    if (connection->listed != AccessList::Match::denied) {
      places.push_back(&connection->place);
    }
  }
  if (places.size() != 1) {
    return failure(places.empty() ? "it is not connected"
                                  : std::to_string(places.size()) +
                                        " connections claim to be it: choose an address or a "
                                        "certificate");
  }
  const std::string certificate = places.front()->certificate;
  return pin(id, certificate.empty() ? std::string(places.front()->host) : "", certificate);
}

runel::Result<void> Registry::setTag(DeviceId id, const std::string& name,
                                     const std::string& value) {
  const auto entry = data_->known(id);
  if (!entry) {
    return entry.error();
  }
  if (const runel::Result<void> tag = checkTag(name, value); !tag) {
    return tag.error();
  }
  Device& device = (*entry)->device;
  const bool ruleTag = device.isRuleTag(name);
  const auto found = device.tags.find(name);
  if (found == device.tags.end() && device.tags.size() >= kMostTags) {
    return failure("it has " + std::to_string(kMostTags) + " tags already");
  }
  if (found != device.tags.end() && found->second == value && !ruleTag) {
    return {};
  }
  device.tags[name] = value;
  if (ruleTag) {
    device.ruleTags.erase(std::lower_bound(device.ruleTags.begin(), device.ruleTags.end(), name));
  }
  data_->saver.add(Save<TagRecord>{{id, name, value, ""}});
  data_->publish(EventType::changed, **entry, "tags");
  data_->retag(**entry);
  return {};
}

runel::Result<void> Registry::removeTag(DeviceId id, const std::string& name) {
  const auto entry = data_->known(id);
  if (!entry) {
    return entry.error();
  }
  Device& device = (*entry)->device;
  if (device.tags.count(name) == 0) {
    return failure("it has no tag '" + printable(name, 64) + "'");
  }
  if (device.isRuleTag(name)) {
    return failure("a rule has set the tag '" + name + "'");
  }
  device.tags.erase(name);
  data_->saver.add(RemoveTag{id, name});
  data_->publish(EventType::changed, **entry, "tags");
  data_->retag(**entry);
  return {};
}

runel::Result<void> Registry::setGroup(const std::string& name, const std::string& query) {
  if (const runel::Result<void> set = data_->groups.set(name, query); !set) {
    return set.error();
  }
  data_->saver.add(Save<GroupRecord>{{name, query}});
  data_->events.publish(EventType::group, 0, "", name);
  data_->retagAll();
  return {};
}

runel::Result<void> Registry::removeGroup(const std::string& name) {
  for (const TagRuleRecord& rule : data_->rules.all()) {
    const runel::Result<Query> query = Query::parse(rule.query);
    if (query && query->uses(name) > 0) {
      return failure("the rule '" + rule.name + "' uses it");
    }
  }
  if (const runel::Result<void> removed = data_->groups.remove(name); !removed) {
    return removed.error();
  }
  data_->saver.add(RemoveGroup{name});
  data_->events.publish(EventType::group, 0, "", name);
  return {};
}

runel::Result<void> Registry::setRule(const TagRuleRecord& rule) {
  if (const runel::Result<void> set = data_->rules.set(rule, data_->groups); !set) {
    return set.error();
  }
  data_->saver.add(Save<TagRuleRecord>{rule});
  data_->events.publish(EventType::rule, 0, "", rule.name);
  data_->retagAll();
  return {};
}

runel::Result<void> Registry::removeRule(const std::string& name) {
  if (!data_->rules.remove(name)) {
    std::vector<std::string> names;
    for (const TagRuleRecord& rule : data_->rules.all()) {
      names.push_back(rule.name);
    }
    return failure("no rule '" + printable(name, 64) + "'" + zell::suggestion(name, names));
  }
  data_->saver.add(RemoveTagRule{name});
  data_->events.publish(EventType::rule, 0, "", name);
  data_->retagAll();
  return {};
}

runel::Result<void> Registry::setAccess(AccessRecord entry) {
  if (entry.created == 0) {
    entry.created = data_->timeline.now();
  }
  if (const runel::Result<void> set = data_->access.set(entry); !set) {
    return set.error();
  }
  entry.value = *AccessList::normalValue(entry.kind, entry.value);
  data_->saver.add(Save<AccessRecord>{entry});
  data_->events.publish(EventType::access, 0, "", printable(entry.value, 64));
  data_->reassessAll();
  return {};
}

runel::Result<void> Registry::removeAccess(const std::string& kind, const std::string& value) {
  const auto normal = AccessList::normalValue(kind, value);
  if (!normal || !data_->access.remove(kind, value)) {
    return failure("no " + printable(kind, 64) + " '" + printable(value, 64) + "' on the list");
  }
  data_->saver.add(RemoveAccess{kind, *normal});
  data_->events.publish(EventType::access, 0, "", printable(value, 64));
  data_->reassessAll();
  return {};
}

}  // namespace runelgw
