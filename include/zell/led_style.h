// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_LED_STYLE_H_
#define ZELL_LED_STYLE_H_

#include <string>

namespace zell {

/// The blink styles of the two LEDs of a device.
struct LedStyle {
  enum Type {
    unknown,    ///< no such style; changes nothing
    off,        ///< both dark
    on,         ///< both lit
    slow,       ///< both, half a second lit and half a second dark
    fast,       ///< both, an eighth of a second lit and as long dark
    alternate,  ///< one lit while the other is dark, changing every half second
  };

  /// The style named @p word (exactly as spelled above), or `unknown`.
  static Type toEnum(const std::string& word);
};

}  // namespace zell

#endif  // ZELL_LED_STYLE_H_
