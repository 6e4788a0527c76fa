// SPDX-License-Identifier: Apache-2.0
// A registry with replaced neighbours: the link, the store and both clocks.
#ifndef TESTS_UNIT_GATEWAY_FLEET_FLEET_CASE_H_
#define TESTS_UNIT_GATEWAY_FLEET_FLEET_CASE_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/gateway/fake_store.h"
#include "gateway/fleet/registry.h"

namespace runelgw::test {

inline constexpr std::int64_t kHour = 3'600'000;
inline constexpr std::int64_t kDay = 24 * kHour;
inline constexpr std::int64_t kYear = 365 * kDay;
inline constexpr std::int64_t kStart = 1'700'000'000'000;

/// Clocks that the test moves.
struct TestClock {
  std::int64_t wall = kStart;
  runel::Clock::time_point steady{std::chrono::hours(1)};

  [[nodiscard]] Clocks clocks() {
    return {[this] { return wall; }, [this] { return steady; }};
  }
  void pass(std::int64_t milliseconds) {
    wall += milliseconds;
    steady += std::chrono::milliseconds(milliseconds);
  }
};

/// Checks that at most one place of a device is worked on, and remembers the decisions.
class TestLink : public LinkControl {
 public:
  void bind(const Place& place, DeviceId device) override {
    for (const auto& [other, bound] : working) {
      EXPECT_FALSE(bound == device && !(other == place)) << "two places of one device work";
    }
    silent.erase(place);
    working[place] = device;
    log.push_back("bind " + text(place) + " " + std::to_string(device));
  }
  void silence(const Place& place, Reason reason) override {
    working.erase(place);
    silent[place] = reason;
    log.push_back("silence " + text(place) + " " + codeOf(reason));
  }
  void ended(const Place& place) {
    working.erase(place);
    silent.erase(place);
  }
  [[nodiscard]] std::vector<std::string> take() { return std::exchange(log, {}); }
  static std::string text(const Place& place) {
    return place.host + ":" + std::to_string(place.port);
  }

  std::map<Place, DeviceId> working;
  std::map<Place, Reason> silent;
  std::vector<std::string> log;
};

class FleetCase : public testing::Test {
 protected:
  /// Replaces the registry by one that has read @p snapshot.
  void start(const RegistrySettings& settings = {}, const Snapshot& snapshot = {},
             bool orderly = true) {
    subscription = {};
    registry.reset();
    link.working.clear();
    link.silent.clear();
    link.log.clear();
    registry = std::make_unique<Registry>(settings, store, clock.clocks(), snapshot, orderly);
    registry->use(&link);
    subscription = registry->events().subscribe([this](const Event& event) {
      events.push_back(std::string(nameOf(event.type)) + (event.name.empty() ? "" : " ") +
                       event.name + (event.text.empty() ? "" : " ") + event.text);
    });
    events.clear();
  }
  [[nodiscard]] static Place place(const std::string& host, std::uint16_t port = 1000,
                                   const std::string& certificate = "") {
    return {host, port, certificate};
  }
  void connect(const std::string& host, const std::string& hostid, std::uint16_t port = 1000,
               const std::string& certificate = "") {
    registry->connected(place(host, port, certificate), hostid, "controller");
  }
  void lose(const std::string& host, std::uint16_t port = 1000,
            const std::string& why = "closed by the device") {
    link.ended(place(host, port));
    registry->lost(place(host, port), why);
  }
  [[nodiscard]] const Device& device(const std::string& name) const {
    static const Device kNone;
    const Device* const found = registry->find(name);
    EXPECT_NE(nullptr, found) << name;
    return found == nullptr ? kNone : *found;
  }
  [[nodiscard]] std::string stateOf(const std::string& name) const {
    return nameOf(device(name).state);
  }
  [[nodiscard]] std::vector<std::string> select(const std::string& text) const {
    std::vector<std::string> names;
    const auto query = registry->query(text);
    EXPECT_TRUE(query) << (query ? "" : query.error().text());
    for (const Device* const one :
         query ? registry->select(*query) : std::vector<const Device*>()) {
      names.push_back(one->name);
    }
    return names;
  }
  [[nodiscard]] std::vector<std::string> takeEvents() { return std::exchange(events, {}); }
  /// What the store would return to the next process.
  [[nodiscard]] Snapshot saved() {
    registry->flush({});
    store.run();
    Snapshot snapshot;
    std::map<DeviceId, DeviceRecord> devices;
    std::map<std::pair<DeviceId, std::string>, TagRecord> tags;
    std::map<std::string, GroupRecord> groups;
    std::map<std::string, TagRuleRecord> rules;
    std::map<std::pair<std::string, std::string>, AccessRecord> access;
    std::map<std::string, SettingRecord> settings;
    for (const auto& changes : store.writes) {
      for (const Change& change : changes) {
        if (const auto* one = std::get_if<Save<DeviceRecord>>(&change)) {
          devices[one->record.id] = one->record;
        } else if (const auto* tag = std::get_if<Save<TagRecord>>(&change)) {
          EXPECT_EQ(1u, devices.count(tag->record.device)) << "a tag before its device";
          tags[{tag->record.device, tag->record.name}] = tag->record;
        } else if (const auto* gone = std::get_if<RemoveTag>(&change)) {
          tags.erase({gone->device, gone->name});
        } else if (const auto* forgotten = std::get_if<RemoveDevice>(&change)) {
          devices.erase(forgotten->device);
        } else if (const auto* group = std::get_if<Save<GroupRecord>>(&change)) {
          groups[group->record.name] = group->record;
        } else if (const auto* noGroup = std::get_if<RemoveGroup>(&change)) {
          groups.erase(noGroup->name);
        } else if (const auto* rule = std::get_if<Save<TagRuleRecord>>(&change)) {
          rules[rule->record.name] = rule->record;
        } else if (const auto* noRule = std::get_if<RemoveTagRule>(&change)) {
          rules.erase(noRule->name);
        } else if (const auto* entry = std::get_if<Save<AccessRecord>>(&change)) {
          access[{entry->record.kind, entry->record.value}] = entry->record;
        } else if (const auto* noEntry = std::get_if<RemoveAccess>(&change)) {
          access.erase({noEntry->kind, noEntry->value});
        } else if (const auto* setting = std::get_if<Save<SettingRecord>>(&change)) {
          settings[setting->record.name] = setting->record;
        }
      }
    }
    const auto values = [](const auto& map, auto& into) {
      for (const auto& [key, value] : map) {
        into.push_back(value);
      }
    };
    values(devices, snapshot.devices);
    values(tags, snapshot.tags);
    values(groups, snapshot.groups);
    values(rules, snapshot.tagRules);
    values(access, snapshot.access);
    values(settings, snapshot.settings);
    snapshot.nextDevice = devices.empty() ? 1 : devices.rbegin()->first + 1;
    return snapshot;
  }
  /// How many of the writes save the device.
  [[nodiscard]] int savesOf(DeviceId id) const {
    int saves = 0;
    for (const auto& changes : store.writes) {
      for (const Change& change : changes) {
        const auto* const save = std::get_if<Save<DeviceRecord>>(&change);
        saves += save != nullptr && save->record.id == id ? 1 : 0;
      }
    }
    return saves;
  }

  TestClock clock;
  FakeStore store;
  TestLink link;
  std::vector<std::string> events;
  std::unique_ptr<Registry> registry;
  Events::Subscription subscription;
};

}  // namespace runelgw::test

#endif  // TESTS_UNIT_GATEWAY_FLEET_FLEET_CASE_H_
