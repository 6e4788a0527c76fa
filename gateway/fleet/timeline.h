// SPDX-License-Identifier: Apache-2.0
// The wall clock, and what its leaps mean for times that were noted before.
#ifndef RUNELGW_FLEET_TIMELINE_H_
#define RUNELGW_FLEET_TIMELINE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>

#include <runel/loop.h>
#include <runel/request.h>

namespace runelgw {

/// The clocks of the fleet. Tests replace them.
struct Clocks {
  std::function<std::int64_t()> wall;                ///< milliseconds since 1970; may leap
  std::function<runel::Clock::time_point()> steady;  ///< never leaps

  /// The clocks of the system.
  [[nodiscard]] static Clocks system();
};

/// Wall clock times, with the leaps of the clock while this process runs. A leap is what the wall
/// clock moved more or less than the steady clock, from `kLeap` on.
class Timeline {
 public:
  static constexpr std::int64_t kLeap = 60000;  ///< in milliseconds

  explicit Timeline(Clocks clocks);

  /// The wall clock time, in milliseconds since 1970; at least 1.
  [[nodiscard]] std::int64_t now() const;
  [[nodiscard]] runel::Clock::time_point steady() const { return clocks_.steady(); }

  /// Compares the clocks. Returns the leap since the last call in milliseconds, 0 for none. Times
  /// that were noted in this process before now stand for this much later ones.
  std::int64_t check();

  /// Records with an earlier time are older than @p age. A leap does not make younger ones old:
  /// for the time @p age after a leap forward the result is so much earlier. 0 if nothing is that
  /// old.
  [[nodiscard]] std::int64_t cutoff(runel::Milliseconds age) const;

 private:
  struct Leap {
    runel::Clock::time_point when;
    std::int64_t by;
  };

  const Clocks clocks_;
  std::int64_t lastWall_;
  runel::Clock::time_point lastSteady_;
  std::deque<Leap> leaps_;  // oldest first
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_TIMELINE_H_
