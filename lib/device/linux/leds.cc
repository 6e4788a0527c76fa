// SPDX-License-Identifier: Apache-2.0
#include "device/common/leds.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "device/linux/file_io.h"

namespace zell {
namespace {

// The files of one LED in the kernel's LED class, in a directory from the build options.
struct Led {
  const char* trigger;
  const char* maxBrightness;
  const char* brightness;
};

constexpr Led kFirst{RUNELD_LED_FIRST "/trigger", RUNELD_LED_FIRST "/max_brightness",
                     RUNELD_LED_FIRST "/brightness"};
constexpr Led kSecond{RUNELD_LED_SECOND "/trigger", RUNELD_LED_SECOND "/max_brightness",
                      RUNELD_LED_SECOND "/brightness"};

// Writes the digits of the LED's full brightness to @p buffer; "1" when it is unknown.
std::string_view fullBrightness(const Led& led, char* buffer, std::size_t size) {
  const UniqueFd file(open(led.maxBrightness, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const ssize_t length = file.valid() ? read(file.get(), buffer, size) : -1;
  const char* const end = buffer + std::max<ssize_t>(length, 0);
  const char* const stop = std::find_if(static_cast<const char*>(buffer), end,
                                        [](char c) { return c < '0' || c > '9'; });
  return stop == buffer ? "1" : std::string_view(buffer, static_cast<std::size_t>(stop - buffer));
}

int setLed(const Led& led, bool lit) {
  // While a trigger drives the LED, the kernel overwrites its brightness.
  const int trigger = overwriteFile(led.trigger, "none");
  if (trigger != 0 && trigger != ENOENT) {
    return trigger;
  }
  char digits[16];
  return overwriteFile(led.brightness,
                       lit ? fullBrightness(led, digits, sizeof digits) : std::string_view("0"));
}

}  // namespace

int setLeds(bool first, bool second) noexcept {
  const int error = setLed(kFirst, first);
  const int secondError = setLed(kSecond, second);
  return error != 0 ? error : secondError;
}

}  // namespace zell
