// SPDX-License-Identifier: Apache-2.0
// LED directories like those of the kernel, in memory.
#ifndef TESTS_CONTRACT_LINUX_LED_DIRECTORIES_H_
#define TESTS_CONTRACT_LINUX_LED_DIRECTORIES_H_

#include <string>

#include "contract/linux/mount.h"

namespace zell::test {

/// Mounts an empty /sys and creates the two LED directories of the build's configuration: off,
/// maximum brightness 255, no trigger.
class LedDirectories {
 public:
  LedDirectories();

  /// The path of a file of the first or second LED.
  static std::string first(const std::string& name);
  static std::string second(const std::string& name);
  /// The brightness of both LEDs, as "255 0".
  static std::string shown();

 private:
  Mount sys_;
};

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_LED_DIRECTORIES_H_
