// SPDX-License-Identifier: Apache-2.0
#include "cli/run.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iostream>

#include <unistd.h>

#include "cli/command_line.h"
#include "cli/signals.h"
#include "cli/targets.h"
#include "fleet/fleet.h"
#include "output/text.h"

namespace runelctl {
namespace {

// Asks for confirmation before a destructive command on several devices. Reports a missing --yes.
bool confirmed(const Settings& settings, const Command& command) {
  const std::size_t count = settings.targets.size();
  const bool unchanged = settings.dryRun || settings.plan;
  if (!command.destructive() || count < 2 || settings.yes || unchanged) {
    return true;
  }
  if (settings.json || isatty(STDIN_FILENO) != 1 || isatty(STDERR_FILENO) != 1) {
    complain(command.name() + " on " + countText(count, "device") +
             " is destructive: confirm with --yes");
    return false;
  }
  std::cerr << command.name() << " on " << countText(count, "device") << "? [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

// Removes the targets that are not listed in @p path from @p targets. Returns the error, empty for
// success.
std::string keepFailed(const std::string& path, std::vector<runel::Address>& targets) {
  std::ifstream file(path);
  if (!file) {
    return errno == ENOENT ? "" : path + ": " + runel::systemText(errno);
  }
  std::vector<runel::Address> failed;
  std::string why;
  if (!readTargets(file, failed, why)) {
    return path + ": " + why;
  }
  const auto done = [&](const runel::Address& target) {
    return std::find(failed.begin(), failed.end(), target) == failed.end();
  };
  targets.erase(std::remove_if(targets.begin(), targets.end(), done), targets.end());
  return "";
}

int runFleet(Session& session, CommandLine& line, const Style& style) {
  const Settings& settings = line.settings();
  Command& command = *line.command();
  Printer printer(style, settings.arrange, command.task(), settings.targets.size() > 1);
  OutputDirectory directory;
  if (!settings.outputDirectory.empty() && !settings.dryRun && !settings.plan) {
    const int error = directory.open(settings.outputDirectory);
    if (error != 0) {
      complain(settings.outputDirectory + ": " + runel::systemText(error));
      return kExitTaskFailed;
    }
    printer.keepIn(directory);
  }
  Fleet fleet(session.loop, settings, command, printer, style);
  if (session.device != nullptr && !settings.dryRun && settings.targets.size() == 1 &&
      settings.targets[0] == session.device->address()) {
    fleet.lend(*session.device);
  }
  const Signals signals(session.loop, [&](int number) { fleet.interrupt(number); });
  const int status = fleet.run();
  if (settings.dryRun) {
    printer.unsent(settings.targets.size());
    return status;
  }
  printer.summary(fleet.ends(), fleet.skipped());
  if (settings.plan) {
    return status;
  }
  const int error =
      settings.retryFailed.empty() ? 0 : writeTargets(settings.retryFailed, fleet.unfinished());
  if (error != 0) {
    complain(settings.retryFailed + ": " + runel::systemText(error));
    return std::max(status, kExitTaskFailed);
  }
  return status;
}

int runOnDevices(Session& session, CommandLine& line, const Style& style) {
  Settings& settings = line.settings();
  if (!settings.retryFailed.empty()) {
    const std::string wrong = keepFailed(settings.retryFailed, settings.targets);
    if (!wrong.empty()) {
      complain(wrong);
      return kExitUsage;
    }
    if (settings.targets.empty()) {
      if (!settings.quiet && !settings.json) {
        complain("nothing to do: none of the devices is listed in " + settings.retryFailed);
      }
      return 0;
    }
  }
  if (!confirmed(settings, *line.command())) {
    return kExitUsage;
  }
  if (const auto error = line.command()->prepare()) {
    tellFailure(line.command()->task(), *error, style);
    return exitStatusOf(*error);
  }
  return runFleet(session, line, style);
}

// An invalid selection is a usage error. A master that does not answer is not.
int refuse(const CommandLine& line, const runel::Error& error, const Style& style) {
  if (error.kind() == runel::Kind::local) {
    return line.refuse(error.text());
  }
  if (line.local() != nullptr) {
    if (const auto status = line.local()->refuse(error.text(), style.json)) {
      return *status;
    }
  }
  tellFailure(line.command() != nullptr ? line.command()->name() : line.local()->name(), error,
              style);
  return exitStatusOf(Error(error));
}

}  // namespace

int runCommandLine(Session& session, const std::vector<std::string>& words) {
  CommandLine line(session.settings);
  const int status = line.parse(words);
  if (status >= 0) {
    return status;
  }
  const Settings& settings = line.settings();
  const Style style = styleFor(settings.json, settings.quiet, settings.colour);
  if (const auto read = line.readTargets(); !read) {
    return refuse(line, read.error(), style);
  }
  return line.command() != nullptr ? runOnDevices(session, line, style)
                                   : line.local()->run(settings, style);
}

}  // namespace runelctl
