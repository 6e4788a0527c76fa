// SPDX-License-Identifier: Apache-2.0
// The LEDs of the device, which all connections share.
#ifndef ZELL_LED_CONTROL_H_
#define ZELL_LED_CONTROL_H_

#include <chrono>
#include <vector>

#include <zell/led_style.h>

namespace zell {

class SlaveProxy;

/// Blinks the two LEDs of the device through the newest living connection's proxy.
///
/// It borrows proxies: `initialize` hands one over, and a proxy takes itself back when it is
/// destroyed. The newest of the others then takes over; with none left the LEDs stay as they are.
class LedControl {
 public:
  /// The one controller of the process.
  static LedControl& instance();

  LedControl(const LedControl&) = delete;
  LedControl& operator=(const LedControl&) = delete;

  /// Makes @p proxy the one that drives the LEDs. Borrowed until its destruction; null is ignored.
  void initialize(const SlaveProxy* proxy);

  /// Starts @p style with its first phase, at once. False, with the reason in the result status of
  /// every proxy that it was given, when the LEDs cannot be set or the style is unknown (EINVAL,
  /// which changes nothing).
  bool blinkLeds(LedStyle::Type style);

  /// The regular work of the library, to be called a few times a second: sets the LEDs when their
  /// next phase is due (late phases are left out, not made up for), and reaps programs that nobody
  /// asks about any more, within a second of their end. Changes no proxy's result status and never
  /// throws.
  void poll();

 private:
  friend class SlaveProxy;

  LedControl() = default;
  ~LedControl() = default;

  /// Forgets @p proxy, which is about to be destroyed. Unknown proxies are ignored.
  void withdraw(const SlaveProxy* proxy);
  /// Ends a running blink and leaves the LEDs as they are.
  void endBlink() { style_ = LedStyle::unknown; }
  /// Sets the LEDs as the current style has them in the current phase; an errno value, 0 for
  /// success.
  int showPhase() const;

  std::vector<const SlaveProxy*> proxies_;  // oldest first, the last one drives
  LedStyle::Type style_ = LedStyle::unknown;
  bool phase_ = false;
  std::chrono::nanoseconds due_{0};  // monotonic time of the next phase
};

}  // namespace zell

#endif  // ZELL_LED_CONTROL_H_
