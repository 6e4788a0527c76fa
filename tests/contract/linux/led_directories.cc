// SPDX-License-Identifier: Apache-2.0
#include "contract/linux/led_directories.h"

#include <filesystem>
#include <fstream>

#include "support/temp_dir.h"

namespace zell::test {

LedDirectories::LedDirectories() : sys_(Mount::memory("/sys")) {
  for (const char* directory : {RUNELD_LED_FIRST, RUNELD_LED_SECOND}) {
    std::filesystem::create_directories(directory);
    std::ofstream(std::string(directory) + "/max_brightness") << "255\n";
    std::ofstream(std::string(directory) + "/brightness") << "0";
  }
}

std::string LedDirectories::first(const std::string& name) {
  return std::string(RUNELD_LED_FIRST) + "/" + name;
}

std::string LedDirectories::second(const std::string& name) {
  return std::string(RUNELD_LED_SECOND) + "/" + name;
}

std::string LedDirectories::shown() {
  return contentOf(first("brightness")) + " " + contentOf(second("brightness"));
}

}  // namespace zell::test
