// SPDX-License-Identifier: Apache-2.0
#include "client/master/run_until.h"

#include <algorithm>
#include <chrono>

namespace runel {
namespace {

constexpr Milliseconds kLongestStep{60000};

}  // namespace

bool runUntil(Loop& loop, const std::function<bool()>& done, std::optional<Milliseconds> limit) {
  const Clock::time_point start = Clock::now();
  loop.step();
  while (!done()) {
    Milliseconds left = kLongestStep;
    if (limit) {
      left = std::min(left, std::chrono::ceil<Milliseconds>(start + *limit - Clock::now()));
    }
    if (left.count() <= 0) {
      return false;
    }
    loop.turn(left);
  }
  return true;
}

}  // namespace runel
