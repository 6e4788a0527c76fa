// SPDX-License-Identifier: Apache-2.0
#include "cli/command_line.h"

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include <runel/fleet.h>
#include <runel/request.h>

#include "cli/targets.h"
#include "commands/number_range.h"
#include "output/error.h"
#include "output/standard_output.h"
#include "output/text.h"

namespace runelctl {
namespace {

constexpr int kMostJobs = 100000;
constexpr std::uint64_t kLeastMemory = std::uint64_t{16} << 20U;
constexpr std::uint64_t kMostMemory = std::uint64_t{1} << 40U;
constexpr double kMostSeconds = 86400.0 * 365;
constexpr int kMostProgramSeconds = 2147483647;
constexpr char kNoProgram[] =
    ": --timeout limits the program of exec or sh; see --io-timeout and --deadline";

CLI::Validator secondsRange(double least) {
  return numberRange(least, kMostSeconds);
}

// Names an unknown command: the library would only report that a command is missing.
std::string explain(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  if (!chosen.empty()) {
    return std::string(error.what()) + " (see runelctl " + chosen.front()->get_name() + " --help)";
  }
  const std::vector<std::string> left = app.remaining();
  const bool unknown = !left.empty() && left.front().compare(0, 1, "-") != 0;
  return (unknown ? "unknown command '" + left.front() + "'" : std::string(error.what())) +
         " (see runelctl --help)";
}

}  // namespace

void complain(const std::string& what) {
  std::cerr << "runelctl: " << terminalSafe(what) << "\n";
}

CommandLine::CommandLine() : commands_(deviceCommands()), locals_(localCommands()) {
  settings_.masterSocket = defaultMasterSocket();
  app_.set_version_flag("--version", "runelctl " RUNELCTL_VERSION);
  app_.require_subcommand(1);
  app_.get_formatter()->column_width(34);
  defineDeviceOptions();
  defineGeneralOptions();
  defineFleetOptions();
  defineCommands(commands_, command_, "Commands");
  defineCommands(locals_, local_, "Local commands");
  for (const auto& local : locals_) {
    if (local->hidden()) {
      app_.get_subcommand(local->name())->group("");
    }
  }
}

void CommandLine::defineDeviceOptions() {
  app_.add_option(
          "-d,--device", devices_,
          "HOST[:PORT], or @NAME at the master; repeatable, comma-separated (default: 127.0.0.1)")
      ->allow_extra_args(false)
      ->envname("RUNELCTL_DEVICE")
      ->type_name("DEVICE");
  app_.add_option("--devices", devicesFile_, "file with one device a line ('-': standard input)")
      ->type_name("FILE");
  app_.add_option("--master-socket", settings_.masterSocket,
                  "control socket of the master (default: runelctl-master.sock in XDG_RUNTIME_DIR)")
      ->type_name("PATH");
  app_.add_option("--timeout", settings_.programLimit,
                  "limit for the program of exec or sh (default: none)")
      ->check(numberRange(1, kMostProgramSeconds))
      ->each([this](const std::string&) { settings_.programLimitGiven = true; })
      ->type_name("SECONDS");
  app_.add_option("--io-timeout", settings_.ioTimeout,
                  "I/O timeout while an answer is due (default: 30)")
      ->check(secondsRange(0.001))
      ->type_name("SECONDS");
  app_.add_option("--connect-timeout", settings_.connectTimeout, "connect timeout (default: 10)")
      ->check(secondsRange(0.001))
      ->type_name("SECONDS");
}

void CommandLine::defineGeneralOptions() {
  app_.add_flag("--json", settings_.json, "print one JSON object a line");
  app_.add_flag("-q,--quiet", settings_.quiet, "print no summary, progress or notes");
  app_.add_option("--color", settings_.colour,
                  "colors of error messages: auto, always or never (default: auto)")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->type_name("WHEN");
  app_.add_flag("-y,--yes", settings_.yes,
                "do not ask before a destructive command on several devices");
  CLI::Validator size = CLI::AsSizeValue(false);
  size.description("");
  app_.add_option(
          "--memory", settings_.memory,
          "limit for the data of all devices in memory, such as 512M; more goes to temporary "
          "files (default: 256M)")
      ->transform(size)
      ->check(numberRange<std::uint64_t>(kLeastMemory, kMostMemory))
      ->type_name("SIZE");
  app_.add_flag("-n,--dry-run", settings_.dryRun, "print devices and frames, send nothing");
}

void CommandLine::defineFleetOptions() {
  const std::string group = "Several devices";
  app_.add_option("-j,--jobs", settings_.jobs,
                  "devices in parallel (default: 64; reboot and restart: 1)")
      ->check(numberRange(1, kMostJobs))
      ->each([this](const std::string&) { settings_.jobsGiven = true; })
      ->group(group)
      ->type_name("N");
  auto* prefix =
      app_.add_flag("--prefix", prefix_, "prefix each line of output with the device's name");
  prefix->group(group);
  app_.add_flag("--group", group_,
                "print the output of each device under its name when the device has finished")
      ->excludes(prefix)
      ->group(group);
  app_.add_option("--output-dir", settings_.outputDirectory,
                  "also write the output of each device to NAME.out in DIR, and the messages about "
                  "it to NAME.err")
      ->group(group)
      ->type_name("DIR");
  app_.add_flag("--fail-fast", settings_.failFast,
                "start no further device after the first failure")
      ->group(group);
  auto* retry = app_.add_option("--retry", settings_.retry,
                                "retry transient failures up to N times (default: 0)")
                    ->check(numberRange(0, 1000))
                    ->group(group)
                    ->type_name("N");
  app_.add_flag("--retry-unsafe", settings_.retryUnsafe,
                "with --retry, repeat also tasks that may have run")
      ->needs(retry)
      ->group(group);
  app_.add_option("--deadline", settings_.deadline,
                  "limit for each attempt on a device; 0: none (default: 600 with several devices, "
                  "none with one)")
      ->check(secondsRange(0))
      ->group(group)
      ->type_name("SECONDS");
  app_.add_option("--wave", settings_.wave,
                  "devices in each wave, such as 1,10%,rest (default: one wave)")
      ->group(group)
      ->type_name("LIST");
  app_.add_option("--max-fail", settings_.maxFail,
                  "failed devices that do not stop the next wave (default: 0)")
      ->check(numberRange(0, 1000000))
      ->group(group)
      ->type_name("N");
  app_.add_option(
          "--retry-failed", settings_.retryFailed,
          "run on the devices in FILE, if it exists; store failed and skipped devices in it")
      ->group(group)
      ->type_name("FILE");
}

template <typename Kind>
void CommandLine::defineCommands(std::vector<std::unique_ptr<Kind>>& commands, Kind*& chosen,
                                 const std::string& group) {
  for (const auto& command : commands) {
    CLI::App* sub = app_.add_subcommand(command->name(), command->help());
    sub->fallthrough();
    sub->group(group);
    command->define(*sub);
    sub->final_callback([&chosen, made = command.get()] { chosen = made; });
  }
}

int CommandLine::parse(std::vector<std::string> words) {
  std::vector<std::string> reversed(words.rbegin(), words.rend());
  try {
    app_.parse(reversed);
  } catch (const CLI::Success& help) {
    std::ostringstream text;
    const int status = app_.exit(help, text);
    return writeOut(Style(), text.str()) ? status : kExitTaskFailed;
  } catch (const CLI::ParseError& error) {
    complain(explain(app_, error));
    return kExitUsage;
  }
  settings_.arrange = prefix_ ? Arrange::prefix : (group_ ? Arrange::group : Arrange::merge);
  settings_.openSpool();
  const std::string wrong = checkChosen();
  if (!wrong.empty()) {
    complain(wrong);
    return kExitUsage;
  }
  return -1;
}

std::string CommandLine::checkChosen() {
  if (!runel::FleetOptions().setWaves(settings_.wave)) {
    return "--wave: invalid list '" + settings_.wave + "': expected sizes such as 1,10%,rest";
  }
  const bool limited =
      command_ != nullptr ? command_->programLimit(settings_).has_value() : local_->runsCommands();
  if (settings_.programLimitGiven && !limited) {
    return (command_ != nullptr ? command_->name() : local_->name()) + kNoProgram;
  }
  return command_ != nullptr ? command_->check(settings_) : local_->check(settings_);
}

std::string CommandLine::readTargets() {
  std::string why;
  std::vector<runel::Address>& targets = settings_.targets;
  for (const std::string& list : devices_) {
    if (!parseTargetList(list, targets, why)) {
      return "-d: " + why;
    }
  }
  if (!devicesFile_.empty()) {
    std::ifstream file;
    if (devicesFile_ != "-") {
      file.open(devicesFile_);
      if (!file) {
        return devicesFile_ + ": " + runel::systemText(errno);
      }
    }
    if (!runelctl::readTargets(devicesFile_ == "-" ? std::cin : file, targets, why)) {
      return devicesFile_ + ": " + why;
    }
  } else if (devices_.empty()) {
    return parseTargetList("127.0.0.1", targets, why) ? "" : why;
  }
  return targets.empty() ? devicesFile_ + ": no devices listed" : "";
}

}  // namespace runelctl
