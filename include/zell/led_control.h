// SPDX-License-Identifier: Apache-2.0
// The LEDs of the device, which all connections share.
#ifndef ZELL_LED_CONTROL_H_
#define ZELL_LED_CONTROL_H_

#include <chrono>
#include <vector>

#include <zell/led_style.h>

namespace zell {

class SlaveProxy;

/// Blinks the two LEDs of the device through the proxy of the newest open connection.
///
/// Proxies are borrowed: `initialize` registers one, and the proxy's destructor removes it. The
/// newest remaining proxy then takes over. Without a proxy the LEDs keep their state.
class LedControl {
 public:
  /// The one controller of the process.
  static LedControl& instance();

  LedControl(const LedControl&) = delete;
  LedControl& operator=(const LedControl&) = delete;

  /// Makes @p proxy drive the LEDs until it is destroyed. Borrows it; ignores null.
  void initialize(const SlaveProxy* proxy);

  /// Starts @p style with its first phase immediately. Returns false when the LEDs cannot be set or
  /// the style is unknown (EINVAL, changes nothing), and stores the reason in the result status of
  /// every registered proxy.
  bool blinkLeds(LedStyle::Type style);

  /// The periodic work of the library. The server calls it a few times a second. It switches the
  /// LEDs when their next phase is due and skips phases that it missed. It also reaps programs that
  /// no client waits for any more, within a second of their end. It changes no proxy's result
  /// status and never throws.
  void poll();

 private:
  friend class SlaveProxy;

  LedControl() = default;
  ~LedControl() = default;

  /// Removes @p proxy, which is about to be destroyed. Ignores unknown proxies.
  void withdraw(const SlaveProxy* proxy);
  /// Stops blinking and leaves the LEDs in their current state.
  void endBlink() { style_ = LedStyle::unknown; }
  /// Sets the LEDs for the current phase of the current style. Returns an errno value, 0 for
  /// success.
  int showPhase() const;

  std::vector<const SlaveProxy*> proxies_;  // oldest first; the last one drives the LEDs
  LedStyle::Type style_ = LedStyle::unknown;
  bool phase_ = false;
  std::chrono::nanoseconds due_{0};  // monotonic time of the next phase
};

}  // namespace zell

#endif  // ZELL_LED_CONTROL_H_
