// SPDX-License-Identifier: Apache-2.0
// LEDs as the kernel shows them, in memory.
#ifndef TESTS_CONTRACT_LINUX_LED_DIRECTORIES_H_
#define TESTS_CONTRACT_LINUX_LED_DIRECTORIES_H_

#include <string>

#include "contract/linux/mount.h"

namespace zell::test {

/// Puts an empty /sys over the machine's and makes the two LED directories that the build was
/// configured with, dark, with a brightness of at most 255 and without a trigger.
class LedDirectories {
 public:
  LedDirectories();

  /// The path of a file of the first or second LED.
  static std::string first(const std::string& name);
  static std::string second(const std::string& name);
  /// The brightness of both, as "255 0".
  static std::string shown();

 private:
  Mount sys_;
};

}  // namespace zell::test

#endif  // TESTS_CONTRACT_LINUX_LED_DIRECTORIES_H_
