// SPDX-License-Identifier: Apache-2.0
#include "client/master/pace.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace runel {
namespace {

// Turns come together for so long, so that a timer need not expire for each.
constexpr double kBurstSeconds = 0.02;

}  // namespace

std::size_t Pace::take(Clock::time_point now, std::size_t most) {
  if (!isLimited()) {
    return most;
  }
  const double passed =
      last_ == Clock::time_point() ? 0 : std::chrono::duration<double>(now - last_).count();
  const auto perSecond = static_cast<double>(perSecond_);
  turns_ = std::min(turns_ + std::max(passed, 0.0) * perSecond, 1 + perSecond * kBurstSeconds);
  last_ = now;
  const std::size_t taken = std::min(most, static_cast<std::size_t>(turns_));
  turns_ -= static_cast<double>(taken);
  return taken;
}

Milliseconds Pace::pause() const {
  const double seconds = (1 - turns_) / static_cast<double>(perSecond_);
  return Milliseconds(
      std::max<Milliseconds::rep>(10, static_cast<Milliseconds::rep>(std::ceil(seconds * 1000))));
}

}  // namespace runel
