// SPDX-License-Identifier: Apache-2.0
// What the master remembers of a device from one of its connections to the next.
#ifndef ZELL_RUNELCTL_MASTER_ROLL_H_
#define ZELL_RUNELCTL_MASTER_ROLL_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "master/slave_link.h"

namespace zell::ctl {

/// Times and counters of devices, by name. Times are milliseconds of the wall clock.
class Roll {
 public:
  struct Entry {
    std::int64_t firstSeen = 0;
    std::uint64_t connects = 0;
    std::uint64_t losses = 0;
    std::int64_t lastLoss = 0;  ///< 0 while there was none
    std::string lastReason;
    SlaveLink::Counters earlier;  ///< of the connections that are over
    std::size_t present = 0;      ///< connections that are there now
  };

  /// Whoever connects chooses his name, so only @p most devices that are gone are remembered.
  explicit Roll(std::size_t most = 4096) : most_(most) {}

  void connected(const std::string& name, std::int64_t now);
  /// The connection that is over has counted @p counters.
  void lost(const std::string& name, std::int64_t now, const std::string& why,
            const SlaveLink::Counters& counters);

  /// An empty entry for a name that is not known.
  [[nodiscard]] const Entry& of(const std::string& name) const;

 private:
  void forgetOne();

  const std::size_t most_;
  std::map<std::string, Entry> entries_;
  std::size_t gone_ = 0;  // entries of which no connection is there
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_ROLL_H_
