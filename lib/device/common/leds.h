// SPDX-License-Identifier: Apache-2.0
// The LEDs of the device. The system's part of the library implements them.
#ifndef ZELL_DEVICE_COMMON_LEDS_H_
#define ZELL_DEVICE_COMMON_LEDS_H_

namespace zell {

/// Switches the two LEDs of the device on (true) or off. Tries both LEDs. Allocates no memory.
/// Returns the first error as an errno value, 0 for success.
[[nodiscard]] int setLeds(bool first, bool second) noexcept;

}  // namespace zell

#endif  // ZELL_DEVICE_COMMON_LEDS_H_
