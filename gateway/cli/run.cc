// SPDX-License-Identifier: Apache-2.0
#include "gateway/cli/run.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include <unistd.h>

#include "gateway/app/gateway.h"
#include "gateway/app/log.h"
#include "gateway/cli/ask_gateway.h"
#include "gateway/cli/command_line.h"
#include "gateway/cli/copy_commands.h"
#include "gateway/cli/token_commands.h"
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

int runGateway(const Settings& settings) {
  const Log log(settings.service.logLevel);
  while (true) {
    auto gateway = std::make_unique<Gateway>(settings, log);
    if (const runel::Result<void> opened = gateway->open(); !opened) {
      log.error(opened.error().text());
      return kFailed;
    }
    if (gateway->run() == GatewayEnd::stopped) {
      return kDone;
    }
    gateway.reset();
    if (const runel::Result<void> restored = finishRestore(settings); !restored) {
      log.error("restore: " + restored.error().text());
    }
  }
}

// In the stop hook of systemd, SERVICE_RESULT tells how the gateway has ended. Another supervisor
// calls this after an orderly end only.
int noteEnd(const Settings& settings) {
  const char* result = std::getenv("SERVICE_RESULT");
  if (result != nullptr && std::string(result) != "success") {
    return kDone;
  }
  const runel::Result<void> noted = noteOrderlyEnd(settings);
  return noted ? kDone : fail(noted.error().text());
}

int runCommand(const CommandLine& line, const Settings& settings) {
  switch (line.command) {
    case CommandLine::Command::run:
      return runGateway(settings);
    case CommandLine::Command::tokenCreate:
      return createToken(line, settings);
    case CommandLine::Command::tokenList:
      return listTokens(line, settings);
    case CommandLine::Command::tokenRevoke:
      return revokeToken(line, settings);
    case CommandLine::Command::backup:
      return backUp(line, settings);
    case CommandLine::Command::restore:
      return restore(line, settings);
    case CommandLine::Command::orderlyEnd:
      return noteEnd(settings);
    case CommandLine::Command::checkConfig:
      break;
  }
  return kUsage;
}

}  // namespace

int runProgram(int argc, const char* const* argv) {
  const Parsed parsed = parseCommandLine(argc, argv);
  std::cout << parsed.output;
  std::cerr << parsed.error;
  if (!parsed.line) {
    return parsed.status;
  }
  if (parsed.line->command == CommandLine::Command::checkConfig) {
    return checkConfig(*parsed.line);
  }
  const SettingsLoader loader = loadSettings(*parsed.line, settingsFile(*parsed.line));
  return tellProblems(loader) ? kUsage : runCommand(*parsed.line, loader.settings());
}

}  // namespace runelgw
