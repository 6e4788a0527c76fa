// SPDX-License-Identifier: Apache-2.0
#include "contract/linux/led_folders.h"

#include <filesystem>
#include <fstream>

#include "support/temp_dir.h"

namespace zell::test {

LedFolders::LedFolders() : sys_(Mount::memory("/sys")) {
  for (const char* folder : {RUNELD_LED_FIRST, RUNELD_LED_SECOND}) {
    std::filesystem::create_directories(folder);
    std::ofstream(std::string(folder) + "/max_brightness") << "255\n";
    std::ofstream(std::string(folder) + "/brightness") << "0";
  }
}

std::string LedFolders::first(const std::string& name) {
  return std::string(RUNELD_LED_FIRST) + "/" + name;
}

std::string LedFolders::second(const std::string& name) {
  return std::string(RUNELD_LED_SECOND) + "/" + name;
}

std::string LedFolders::shown() {
  return contentOf(first("brightness")) + " " + contentOf(second("brightness"));
}

}  // namespace zell::test
