// SPDX-License-Identifier: Apache-2.0
#include "gateway/cli/run.h"

#include <iostream>
#include <string>

#include <unistd.h>

#include "gateway/cli/command_line.h"
#include "gateway/config/settings_loader.h"
#include "gateway/config/write_settings.h"

namespace runelgw {
namespace {

constexpr char kDefaultFile[] = "/etc/runelgw/runelgw.toml";

// Reads the file and the options. The problems are in the loader.
SettingsLoader loadSettings(const CommandLine& line, const std::string& file) {
  SettingsLoader loader;
  if (!file.empty()) {
    loader.readFile(file);
  }
  for (const auto& [row, value] : line.settings) {
    loader.readOption(*row, value);
  }
  loader.compare();
  return loader;
}

// A missing file at the default path means the defaults; a named file must exist.
std::string settingsFile(const CommandLine& line) {
  if (line.command == CommandLine::Command::checkConfig && !line.file.empty()) {
    return line.file;
  }
  return line.configFile.value_or(::access(kDefaultFile, F_OK) == 0 ? kDefaultFile : "");
}

bool tellProblems(const SettingsLoader& loader) {
  for (const std::string& problem : loader.problems()) {
    std::cerr << "runelgw: " << problem << "\n";
  }
  return !loader.problems().empty();
}

int checkConfig(const CommandLine& line) {
  if (line.example) {
    std::cout << exampleFile();
    return kDone;
  }
  const std::string file = settingsFile(line);
  const SettingsLoader loader = loadSettings(line, file);
  if (tellProblems(loader)) {
    return kUsage;
  }
  if (line.print) {
    std::cout << settingsText(loader.settings());
  } else {
    std::cout << (file.empty() ? "no file: the defaults apply" : file + ": no problems") << "\n";
  }
  return kDone;
}

}  // namespace

int runProgram(int argc, const char* const* argv) {
  const Parsed parsed = parseCommandLine(argc, argv);
  std::cout << parsed.output;
  std::cerr << parsed.error;
  if (!parsed.line) {
    return parsed.status;
  }
  if (parsed.line->command != CommandLine::Command::checkConfig) {
    std::cerr << "runelgw: this program was built without the parts that this command needs\n";
    return kFailed;
  }
  return checkConfig(*parsed.line);
}

}  // namespace runelgw
