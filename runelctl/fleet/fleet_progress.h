// SPDX-License-Identifier: Apache-2.0
// The progress of the transfers of many devices together.
#ifndef RUNELCTL_FLEET_FLEET_PROGRESS_H_
#define RUNELCTL_FLEET_FLEET_PROGRESS_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <runel/loop.h>

#include "output/report.h"

namespace runelctl {

class FleetProgress {
 public:
  using Time = runel::Clock::time_point;

  explicit FleetProgress(std::size_t devices) : parts_(devices), unknown_(devices) {}

  /// The transfer of the device number @p index has come to @p progress.
  void update(std::size_t index, const Progress& progress);
  /// An attempt begins. What an earlier one has transferred counts again only if it is repeated.
  void begin(std::size_t index);
  /// The device has ended: nothing more is expected from it.
  void end(std::size_t index);

  /// The bytes, the rate and the remaining time, such as "1.2 GiB of 3.4 GiB 56.0 MiB/s 0:40". A
  /// device that has not started counts as much as the average of the others. Empty before any
  /// progress.
  [[nodiscard]] std::string text(Time now);

 private:
  struct Part {
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    bool known = false;   // total is known, or the device has ended
    bool moving = false;  // `done` of this attempt is known
  };
  struct Sample {
    Time time;
    std::uint64_t moved;
  };

  [[nodiscard]] double rate(Time now);
  [[nodiscard]] std::uint64_t expected() const;

  std::vector<Part> parts_;
  std::size_t unknown_;  // parts whose total is not known
  std::size_t known_ = 0;
  std::uint64_t done_ = 0;
  std::uint64_t total_ = 0;  // of the known parts
  std::uint64_t moved_ = 0;  // ever, repeated bytes too
  std::deque<Sample> samples_;
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_FLEET_PROGRESS_H_
