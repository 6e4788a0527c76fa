// SPDX-License-Identifier: Apache-2.0
// Limits how often something is done.
#ifndef RUNEL_MASTER_PACE_H_
#define RUNEL_MASTER_PACE_H_

#include <cstddef>

#include <runel/loop.h>

namespace runel {

/// A number of turns a second, evenly: after a pause there are few more at once. Does not use a
/// clock.
class Pace {
 public:
  /// @p perSecond 0: any number.
  explicit Pace(std::size_t perSecond) : perSecond_(perSecond) {}

  [[nodiscard]] bool isLimited() const { return perSecond_ != 0; }
  /// Takes as many turns as there are by @p now, at most @p most.
  [[nodiscard]] std::size_t take(Clock::time_point now, std::size_t most);
  /// Until there is a turn, after `take` has returned fewer than it was asked for.
  [[nodiscard]] Milliseconds pause() const;

 private:
  const std::size_t perSecond_;
  double turns_ = 1;
  Clock::time_point last_;
};

}  // namespace runel

#endif  // RUNEL_MASTER_PACE_H_
