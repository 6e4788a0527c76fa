// SPDX-License-Identifier: Apache-2.0
// The state of the registry.
#ifndef RUNELGW_FLEET_REGISTRY_DATA_H_
#define RUNELGW_FLEET_REGISTRY_DATA_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "gateway/fleet/registry.h"
#include "gateway/fleet/saver.h"

namespace runelgw {

class Registry::Data {
 public:
  struct Connection;

  /// One device. Small: there are many.
  struct Entry {
    Device device;
    Decision decision = Decision::waiting;
    /// Those that claim its identity, oldest first. Borrowed from `connections`.
    std::vector<Connection*> claims;
    Connection* working = nullptr;  ///< one of them, or none
    std::uint32_t bridges = 0;      ///< of its agents, since it is online
    std::uint32_t epoch = 0;        ///< counts its losses: bridges of an earlier one do not count
    bool seenQueued = false;        ///< `lastSeen` will be saved
    ///@{
    /// Times that were noted in this process: they change with a leap of the clock.
    bool notedFirst = false;
    bool notedSeen = false;
    bool notedLoss = false;
    ///@}
  };
  /// A connection that has told its identity.
  struct Connection {
    Place place;
    std::string hostid;
    std::string deviceType;
    Entry* entry = nullptr;  ///< none: its device may not be added
    AccessList::Match listed = AccessList::Match::none;
    std::optional<Verdict> verdict;  ///< as it was told to the link
    std::int64_t since = 0;
  };
  struct Bridge {
    DeviceId device = 0;
    std::uint32_t epoch = 0;
  };

  Data(RegistrySettings chosen, Store& store, Clocks clocks, const Snapshot& snapshot,
       bool orderly);

  // registry_load.cc
  void load(const Snapshot& snapshot);
  void loadDevice(const DeviceRecord& record);
  void loadTags(const std::vector<TagRecord>& tags);
  void reserveEvents();
  [[nodiscard]] std::optional<DeviceRecord> recordOf(DeviceId id) const;

  // registry.cc
  [[nodiscard]] Entry* at(DeviceId id) const;
  [[nodiscard]] runel::Result<Entry*> known(DeviceId id) const;
  [[nodiscard]] Query::Context context() const;
  [[nodiscard]] std::vector<const Device*> select(const Query& query) const;
  [[nodiscard]] runel::Result<void> checkNames(const Query& query, const Seen& seen) const;
  [[nodiscard]] bool exists(const Query::Named& named, const Seen& seen) const;
  void tick();
  void shiftTimes(std::int64_t leap);
  void saveSeen();
  void renewRules();

  // registry_changes.cc
  void changed(Entry& entry, const std::string& what);
  void retag(Entry& entry);
  void retagAll();
  void rename(Entry& entry);
  [[nodiscard]] std::string nameFor(const Entry& entry) const;
  void setState(Entry& entry, DeviceState state);
  void publish(EventType type, const Entry& entry, const std::string& text);
  void note(const Entry& entry, const std::string& event, const std::string& reason);
  void heard(Entry& entry);
  void learn(Entry& entry, const Facts& facts);

  // registry_connections.cc
  [[nodiscard]] std::optional<runel::Milliseconds> silenceFor(const Place& place) const;
  void connected(const Place& place, const std::string& hostid, const std::string& deviceType);
  void lost(const Place& place, const std::string& why);
  [[nodiscard]] AccessList::Match listed(const Claimant& who) const;
  void identify(Connection& connection);
  [[nodiscard]] std::string refusal(const Connection& connection) const;
  Entry& addDevice(const Connection& connection);
  void refuse(Connection& connection, const std::string& why);
  void reassess(Entry& entry);
  void reassessAll();
  void retryRefused();
  [[nodiscard]] std::vector<Verdict> judgeClaims(const Entry& entry) const;
  [[nodiscard]] Standing standing(const Entry& entry) const;
  [[nodiscard]] DeviceState idleState(const Entry& entry) const;
  void tell(Entry& entry, Connection& connection, Verdict verdict);
  void goOffline(Entry& entry);
  void goOnline(Entry& entry, Connection& connection);
  void agentConnected(const Place& place, DeviceId device);
  void agentLost(const Place& place);
  void clause(const Place& place, DeviceId device, const std::string& text);
  void countBridge(Entry& entry, bool connected);

  const RegistrySettings settings;
  Timeline timeline;
  LinkControl* link = nullptr;
  Groups groups;
  TagRules rules;
  AccessList access;  // of the database
  Events events;
  std::uint64_t reservedEvents = 0;  // the first id that is not reserved
  Saver saver;
  std::map<DeviceId, std::unique_ptr<Entry>> devices;
  std::map<std::string, Entry*> byName;
  std::unordered_map<std::string, Entry*> byIdentity;
  std::map<Place, Connection> connections;
  std::map<Place, Bridge> bridges;
  std::array<std::size_t, 5> counts{};
  DeviceId nextDevice = 1;
  std::deque<std::pair<runel::Clock::time_point, DeviceId>>
      seenToSave;            // `lastSeen` to save, by time
  DeviceId lastRenewed = 0;  // rules that depend on time were evaluated up to here

  ///@{
  /// The caution after the start.
  std::optional<runel::Clock::time_point> cautiousUntil;
  std::unordered_set<std::string> knownPlaces;  // addresses with 'a' and certificates with 'c'
  ///@}
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_REGISTRY_DATA_H_
