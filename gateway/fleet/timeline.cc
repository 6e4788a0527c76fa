// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/timeline.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace runelgw {
namespace {

std::int64_t between(runel::Clock::time_point from, runel::Clock::time_point to) {
  return std::chrono::duration_cast<runel::Milliseconds>(to - from).count();
}

// No retention is longer: older leaps have no effect.
constexpr std::int64_t kRemembered = std::int64_t{10} * 365 * 24 * 3600 * 1000;
constexpr std::size_t kMostLeaps = 1000;

}  // namespace

Clocks Clocks::system() {
  return {[] {
            const auto now = std::chrono::system_clock::now().time_since_epoch();
            return static_cast<std::int64_t>(
                std::chrono::duration_cast<runel::Milliseconds>(now).count());
          },
          [] { return runel::Clock::now(); }};
}

Timeline::Timeline(Clocks clocks)
    : clocks_(std::move(clocks)), lastWall_(now()), lastSteady_(steady()) {}

std::int64_t Timeline::now() const {
  return std::max<std::int64_t>(1, clocks_.wall());
}

std::int64_t Timeline::check() {
  const std::int64_t wall = now();
  const runel::Clock::time_point steadyNow = steady();
  const std::int64_t leap = (wall - lastWall_) - between(lastSteady_, steadyNow);
  lastWall_ = wall;
  lastSteady_ = steadyNow;
  if (leap > -kLeap && leap < kLeap) {
    return 0;
  }
  while (!leaps_.empty() &&
         (between(leaps_.front().when, steadyNow) > kRemembered || leaps_.size() >= kMostLeaps)) {
    leaps_.pop_front();
  }
  leaps_.push_back({steadyNow, leap});
  return leap;
}

std::int64_t Timeline::cutoff(runel::Milliseconds age) const {
  const runel::Clock::time_point steadyNow = steady();
  // A record from before leaps has a time that is earlier by their sum. The newest leap may not
  // have been noted yet.
  std::int64_t sum = (now() - lastWall_) - between(lastSteady_, steadyNow);
  sum = sum > -kLeap && sum < kLeap ? 0 : sum;
  std::int64_t most = std::max<std::int64_t>(0, sum);
  for (auto leap = leaps_.rbegin(); leap != leaps_.rend(); ++leap) {
    if (between(leap->when, steadyNow) >= age.count()) {
      break;
    }
    sum += leap->by;
    most = std::max(most, sum);
  }
  return std::max<std::int64_t>(0, now() - age.count() - most);
}

}  // namespace runelgw
