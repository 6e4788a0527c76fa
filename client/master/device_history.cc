// SPDX-License-Identifier: Apache-2.0
#include "client/master/device_history.h"

#include <algorithm>

namespace runel {

void DeviceHistory::connected(const std::string& name, std::int64_t now) {
  Entry& entry = entries_[name];
  if (entry.connects == 0) {
    entry.firstSeen = now;
  } else if (entry.present == 0) {
    --gone_;
  }
  ++entry.connects;
  ++entry.present;
}

void DeviceHistory::lost(const std::string& name, std::int64_t now, const std::string& why,
                         const SlaveLink::Counters& counters) {
  Entry& entry = entries_.at(name);
  ++entry.losses;
  --entry.present;
  entry.lastLoss = now;
  entry.lastReason = why;
  entry.earlier.requests += counters.requests;
  entry.earlier.bytesOut += counters.bytesOut;
  entry.earlier.bytesIn += counters.bytesIn;
  if (entry.present == 0 && ++gone_ > most_) {
    forgetOne();
  }
}

const DeviceHistory::Entry& DeviceHistory::of(const std::string& name) const {
  static const Entry kNothing;
  const auto found = entries_.find(name);
  return found == entries_.end() ? kNothing : found->second;
}

// Removes the entry that has been disconnected for the longest time.
void DeviceHistory::forgetOne() {
  const auto longer = [](const auto& one, const auto& other) {
    const bool oneGone = one.second.present == 0;
    const bool otherGone = other.second.present == 0;
    return oneGone != otherGone ? oneGone : one.second.lastLoss < other.second.lastLoss;
  };
  entries_.erase(std::min_element(entries_.begin(), entries_.end(), longer));
  --gone_;
}

}  // namespace runel
