// SPDX-License-Identifier: Apache-2.0
// Gathers the changes of the registry and writes them to the store.
#ifndef RUNELGW_FLEET_SAVER_H_
#define RUNELGW_FLEET_SAVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "gateway/store/store.h"

namespace runelgw {

/// Several changes of one device between two writes become one. What the store refuses is written
/// again: devices in their newest state, other changes one by one, history and clauses only some
/// times.
class Saver {
 public:
  /// The state of a device, without a value if it was forgotten.
  using RecordOf = std::function<std::optional<DeviceRecord>(DeviceId device)>;

  /// @p problem is told what is lost. @p store must outlive it; a write that is done later is
  /// ignored.
  Saver(Store& store, RecordOf recordOf, std::function<void(const std::string&)> problem);

  /// The device has changed.
  void deviceChanged(DeviceId device) { devices_.insert(device); }
  /// Any other change, or a record to append.
  void add(Change change);
  /// Removes the device with all that is known about it.
  void deviceForgotten(DeviceId device);

  /// Writes what is gathered, then calls @p done, which may be empty.
  void write(Store::Done done);
  /// Writes what is gathered, if there is something and the store has room.
  void writeSome();

  /// The number of records that were dropped, because there were too many or the store refused
  /// them.
  [[nodiscard]] std::uint64_t dropped() const { return dropped_; }

 private:
  struct Pending {
    Change change;
    int attempts = 0;
  };
  using Batch = std::vector<Pending>;

  void send(Batch batch, std::vector<DeviceId> devices, Store::Done done);
  void failed(Batch batch, const std::vector<DeviceId>& devices, const std::string& why);
  [[nodiscard]] bool hasRoom(const Change& change);
  void drop(const std::string& why);

  Store& store_;
  const RecordOf recordOf_;
  const std::function<void(const std::string&)> problem_;
  std::set<DeviceId> devices_;
  Batch pending_;
  Batch refused_;  // written one by one
  std::size_t clauseBytes_ = 0;
  std::uint64_t dropped_ = 0;
  bool told_ = false;  // about the records that are dropped now
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_SAVER_H_
