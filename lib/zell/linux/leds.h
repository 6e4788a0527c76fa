// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_LINUX_LEDS_H_
#define ZELL_LINUX_LEDS_H_

namespace zell {

/// Lights (true) or darkens the two LEDs of the device, in the folders that the build was
/// configured with. Tries both. Takes no memory. The first error as an errno value, 0 for none.
[[nodiscard]] int setLeds(bool first, bool second) noexcept;

}  // namespace zell

#endif  // ZELL_LINUX_LEDS_H_
