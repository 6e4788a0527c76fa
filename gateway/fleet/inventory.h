// SPDX-License-Identifier: Apache-2.0
// What the gateway asks devices by itself.
#ifndef RUNELGW_FLEET_INVENTORY_H_
#define RUNELGW_FLEET_INVENTORY_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include <runel/request.h>

#include "gateway/core/router.h"
#include "gateway/fleet/registry.h"

namespace runelgw {

struct InventoryRules {
  /// Between two rounds of questions to one device. 0: only when it connects.
  runel::Milliseconds interval{900000};
  /// How many devices are asked at the same time.
  std::size_t atOnce = 64;
  /// How many rounds begin in a second.
  std::size_t startsPerSecond = 500;
  /// A device with other work is asked this much later.
  runel::Milliseconds retry{30000};
  /// For each answer.
  runel::Milliseconds timeout{30000};
};

/// Counters for metrics.
struct InventoryState {
  std::size_t scheduled = 0;  ///< devices that are online
  std::size_t asking = 0;     ///< rounds that run now
  std::uint64_t rounds = 0;   ///< rounds that ended
  std::uint64_t failed = 0;   ///< questions without a usable answer
  std::uint64_t skipped = 0;  ///< rounds that were put off because the device had other work
};

/// Asks each device for its type, its kernel and its free space: when it connects, and at regular
/// intervals. The rounds of a fleet that connects at once are spread over the interval. A question
/// that fails changes nothing.
class Inventory {
 public:
  /// Both must outlive it. The devices that are online already are asked too.
  Inventory(Registry& registry, Router& router, InventoryRules rules, Clocks clocks);
  ~Inventory();
  Inventory(const Inventory&) = delete;
  Inventory& operator=(const Inventory&) = delete;

  /// Begins the rounds that are due. Call it several times a second.
  void tick();
  [[nodiscard]] InventoryState state() const;

 private:
  class Data;
  std::unique_ptr<Data> data_;
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_INVENTORY_H_
