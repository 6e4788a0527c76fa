// SPDX-License-Identifier: Apache-2.0
// The statistics that the master keeps of a device across its connections.
#ifndef RUNEL_MASTER_DEVICE_HISTORY_H_
#define RUNEL_MASTER_DEVICE_HISTORY_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "client/master/slave_link.h"

namespace runel {

/// Times and counters of devices, by name. Times are wall clock times in milliseconds.
class DeviceHistory {
 public:
  struct Entry {
    std::int64_t firstSeen = 0;
    std::uint64_t connects = 0;
    std::uint64_t losses = 0;
    std::int64_t lastLoss = 0;  ///< 0 before the first loss
    std::string lastReason;
    SlaveLink::Counters earlier;  ///< of earlier connections
    std::size_t present = 0;      ///< current connections
    std::uint64_t left = 0;       ///< its number in the order of leaving; 0 while present
  };

  /// Keeps the entries of at most @p most disconnected devices: clients choose their names, so the
  /// number of entries must be limited. With 0 it keeps no entry at all.
  explicit DeviceHistory(std::size_t most = 4096) : most_(most) {}

  void connected(const std::string& name, std::int64_t now);
  /// @p counters are those of the lost connection.
  void lost(const std::string& name, std::int64_t now, const std::string& why,
            const SlaveLink::Counters& counters);

  /// Returns an empty entry for an unknown name.
  [[nodiscard]] const Entry& of(const std::string& name) const;

 private:
  void leave(const std::string& name, Entry& entry);

  const std::size_t most_;
  std::map<std::string, Entry> entries_;
  std::map<std::uint64_t, std::string> gone_;  // entries without a connection, oldest loss first
  std::uint64_t lastLeft_ = 0;
};

}  // namespace runel

#endif  // RUNEL_MASTER_DEVICE_HISTORY_H_
