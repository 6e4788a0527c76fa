// SPDX-License-Identifier: Apache-2.0
#include <memory>

#include <sys/stat.h>

#include "contract/device/environment.h"
#include "contract/linux/led_directories.h"
#include "support/temp_dir.h"

namespace zell::test::environment {
namespace {

std::unique_ptr<TempDir> g_directory;
std::unique_ptr<LedDirectories> g_leds;

}  // namespace

void reset() {
  g_directory = std::make_unique<TempDir>();
  g_leds.reset();  // unmount the old ones before the new ones are mounted
  g_leds = std::make_unique<LedDirectories>();
}

std::string file(const std::string& name) {
  return g_directory->file(name);
}

std::string makeDirectory(const std::string& name, const std::vector<std::string>& names) {
  mkdir(file(name).c_str(), 0755);
  for (const std::string& entry : names) {
    g_directory->write(name + "/" + entry, "");
  }
  return file(name);
}

std::string programThatPrints(const std::string& text) {
  return "printf " + text;
}

std::string programThatExitsWith(int status) {
  return "exit " + std::to_string(status);
}

std::string programThatDiesOfSigusr1() {
  return "kill -USR1 $$";
}

std::string programThatSleeps() {
  return "exec sleep 1000";
}

std::string missingProgram() {
  return "/no/such/program";
}

std::string runningProcess() {
  return "world";  // process 1 of the world
}

}  // namespace zell::test::environment
