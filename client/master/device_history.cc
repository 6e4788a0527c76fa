// SPDX-License-Identifier: Apache-2.0
#include "client/master/device_history.h"

#include <utility>

namespace runel {

void DeviceHistory::connected(const std::string& name, std::int64_t now) {
  if (most_ == 0) {
    return;
  }
  Entry& entry = entries_[name];
  if (entry.connects == 0) {
    entry.firstSeen = now;
  } else if (entry.present == 0) {
    gone_.erase(std::exchange(entry.left, 0));
  }
  ++entry.connects;
  ++entry.present;
}

void DeviceHistory::lost(const std::string& name, std::int64_t now, const std::string& why,
                         const SlaveLink::Counters& counters) {
  if (most_ == 0) {
    return;
  }
  Entry& entry = entries_.at(name);
  ++entry.losses;
  --entry.present;
  entry.lastLoss = now;
  entry.lastReason = why;
  entry.earlier.requests += counters.requests;
  entry.earlier.bytesOut += counters.bytesOut;
  entry.earlier.bytesIn += counters.bytesIn;
  if (entry.present == 0) {
    leave(name, entry);
  }
}

const DeviceHistory::Entry& DeviceHistory::of(const std::string& name) const {
  static const Entry kNothing;
  const auto found = entries_.find(name);
  return found == entries_.end() ? kNothing : found->second;
}

// Forgets the entry that has been disconnected for the longest time when there are too many.
void DeviceHistory::leave(const std::string& name, Entry& entry) {
  entry.left = ++lastLeft_;
  gone_.emplace(entry.left, name);
  if (gone_.size() > most_) {
    entries_.erase(gone_.begin()->second);
    gone_.erase(gone_.begin());
  }
}

}  // namespace runel
