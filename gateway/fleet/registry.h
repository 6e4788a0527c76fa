// SPDX-License-Identifier: Apache-2.0
// All devices, in memory: which connection is which device, and what people decide about them.
#ifndef RUNELGW_FLEET_REGISTRY_H_
#define RUNELGW_FLEET_REGISTRY_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <runel/request.h>
#include <runel/result.h>

#include "gateway/fleet/device.h"
#include "gateway/fleet/events.h"
#include "gateway/fleet/groups.h"
#include "gateway/fleet/identity.h"
#include "gateway/fleet/query.h"
#include "gateway/fleet/tag_rules.h"
#include "gateway/fleet/timeline.h"
#include "gateway/link/link_observer.h"
#include "gateway/store/store.h"

namespace runelgw {

struct RegistrySettings {
  NewDevices newDevices = NewDevices::welcome;
  PinTo pinTo = PinTo::best;
  /// Of the configuration. Entries of the database complete it.
  AccessList access;
  /// How long nothing is written to known devices after a start that does not follow an orderly
  /// end.
  runel::Milliseconds caution{75000};
  /// Then also not to places that the database does not know, if it knows any device: a device may
  /// have a new address.
  bool cautionForUnknownPlaces = true;
  ///@{
  /// Connections choose their host identifiers: these limit what they can fill. Further ones are
  /// kept open and silent.
  std::size_t mostDevices = 100000;
  std::size_t mostWaiting = 10000;
  ///@}
};

/// What a device has told. Absent values stay as they are.
struct Facts {
  std::optional<std::string> deviceType;
  std::optional<std::string> kernel;  ///< any bytes; made printable and short
  std::optional<std::uint64_t> freeBytes;
};

/// A living connection of a device, for the choice of a pin.
struct DeviceConnection {
  Place place;
  Verdict verdict = Verdict::quarantined;
  std::int64_t since = 0;  ///< wall clock, in milliseconds since 1970
};

/// The devices. Belongs to the I/O thread. Pointers to devices are valid until the device is
/// forgotten; their contents change with each call of a function that is not const.
///
/// All changes are in memory at once and reach the store soon after; `flush` tells when.
class Registry : public LinkObserver {
 public:
  /// Takes over what @p snapshot contains. @p orderly: see StartRecord. @p store must outlive it.
  Registry(RegistrySettings settings, Store& store, Clocks clocks, const Snapshot& snapshot,
           bool orderly);
  ~Registry() override;

  /// Where its decisions go. Call it before the first connection, and with nullptr before @p link
  /// is destroyed.
  void use(LinkControl* link);

  ///@{
  /// nullptr for an unknown device.
  [[nodiscard]] const Device* find(DeviceId id) const;
  [[nodiscard]] const Device* find(const std::string& name) const;
  ///@}
  /// The devices that @p query selects, by name.
  [[nodiscard]] std::vector<const Device*> select(const Query& query) const;
  [[nodiscard]] bool matches(const Device& device, const Query& query) const;
  /// Whether it is in the saved group; false for an unknown group.
  [[nodiscard]] bool inGroup(const Device& device, const std::string& group) const;
  /// Whether a caller may know a device. Empty: each one.
  using Seen = std::function<bool(const Device& device)>;
  /// Parses @p text and checks its groups. Then also fails if it names a single device that does
  /// not exist, or that is not @p seen. The error is a sentence with the position or a suggestion.
  [[nodiscard]] runel::Result<Query> query(const std::string& text, const Seen& seen = {}) const;
  /// What queries need besides a device.
  [[nodiscard]] Query::Context context() const;
  [[nodiscard]] std::size_t size() const;
  /// The number of devices in each state, by `DeviceState`.
  [[nodiscard]] const std::array<std::size_t, 5>& counts() const;
  /// The living connections that claim to be @p id, oldest first.
  [[nodiscard]] std::vector<DeviceConnection> connections(DeviceId id) const;

  ///@{
  /// Decisions of people. They fail with a sentence, for an unknown device too.
  ///
  /// Lets it work, if its connection matches its pin and no list denies it.
  runel::Result<void> approve(DeviceId id);
  /// Nothing is written to it from now on, until it is approved.
  runel::Result<void> deny(DeviceId id);
  /// Removes it with all that is known about it. Only while it is not connected.
  runel::Result<void> forget(DeviceId id);
  /// Pins it to an address, or a certificate, or both; empty strings for none.
  runel::Result<void> pin(DeviceId id, const std::string& address, const std::string& certificate);
  /// Pins it to the place of its only living connection that no list denies, in the way of
  /// `PinTo::best`. Fails if there is not exactly one.
  runel::Result<void> pinToConnection(DeviceId id);
  /// Then any single connection may be this device.
  runel::Result<void> unpin(DeviceId id);
  runel::Result<void> setTag(DeviceId id, const std::string& name, const std::string& value);
  /// A rule may set it again. Fails for a tag that a rule has set.
  runel::Result<void> removeTag(DeviceId id, const std::string& name);
  runel::Result<void> setGroup(const std::string& name, const std::string& query);
  /// Fails while another group or a rule uses it.
  runel::Result<void> removeGroup(const std::string& name);
  runel::Result<void> setRule(const TagRuleRecord& rule);
  runel::Result<void> removeRule(const std::string& name);
  runel::Result<void> setAccess(AccessRecord entry);
  runel::Result<void> removeAccess(const std::string& kind, const std::string& value);
  ///@}
  [[nodiscard]] const Groups& groups() const;
  [[nodiscard]] const TagRules& rules() const;
  /// The entries of the database, without those of the configuration.
  [[nodiscard]] std::vector<AccessRecord> accessEntries() const;

  /// The device gave a sign of life, such as an answer.
  void heard(DeviceId id);
  /// The device has told facts about itself.
  void learn(DeviceId id, const Facts& facts);

  /// A subscriber must not change the registry within its call.
  [[nodiscard]] Events& events();
  [[nodiscard]] const Timeline& timeline() const;

  /// Writes all changes to the store, and calls @p done when they are committed.
  void flush(Store::Done done);
  /// Call it once a second: writes changes, looks at the clock, and evaluates rules again that
  /// depend on time.
  void tick();

  ///@{
  /// See LinkObserver.
  [[nodiscard]] std::optional<runel::Milliseconds> silenceFor(const Place& place) override;
  void connected(const Place& place, const std::string& hostid,
                 const std::string& deviceType) override;
  void lost(const Place& place, const std::string& why) override;
  void agentConnected(const Place& bridge, DeviceId device) override;
  void agentLost(const Place& bridge, DeviceId device) override;
  void clause(const Place& bridge, DeviceId device, const std::string& text) override;
  void refusedConnection(const Place& place, const std::string& why) override;
  void problem(const std::string& text) override;
  ///@}

 private:
  class Data;
  std::unique_ptr<Data> data_;
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_REGISTRY_H_
