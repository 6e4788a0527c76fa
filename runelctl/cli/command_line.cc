// SPDX-License-Identifier: Apache-2.0
#include "cli/command_line.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include <runel/fleet.h>
#include <runel/request.h>

#include "cli/tables.h"
#include "commands/number_range.h"
#include "commands/size_range.h"
#include "output/error.h"
#include "output/standard_output.h"
#include "output/text.h"
#include "text/nearest.h"

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

// The library splits an argument of a list at its commas if it is in brackets, such as the pattern
// [a,b]. This byte in front of the bracket keeps it as it is.
constexpr char kKeep = '\x01';

std::string kept(const std::string& word) {
  const bool brackets = !word.empty() && word.front() == '[' && word.back() == ']';
  return brackets || (!word.empty() && word.front() == kKeep) ? kKeep + word : word;
}

// Removes the byte from the values of all options and arguments of @p app.
void takeKept(CLI::App& app) {
  const CLI::Validator strip(
      [](std::string& value) {
        value.erase(0, !value.empty() && value.front() == kKeep ? 1 : 0);
        return std::string();
      },
      "");
  for (CLI::Option* option : app.get_options()) {
    if (option->get_items_expected_max() > 0) {
      option->transform(strip);
    }
  }
}

bool isOptionWord(const std::string& word) {
  return word.size() > 1 && word[0] == '-';
}

void addOptionNames(const std::vector<OptionRow>& rows, std::vector<std::string>& names) {
  for (const OptionRow& row : rows) {
    names.insert(names.end(), row.names.begin(), row.names.end());
  }
}

// What the words @p left are that the command line has no use for. @p subcommand: the command has a
// subcommand, or needs none. Stores a known word in @p similar that may have been meant.
std::string describeRest(const Tables& tables, const CommandRow* command, bool subcommand,
                         const std::vector<std::string>& left, std::string& similar) {
  std::vector<std::string> known;
  const bool needsCommand = command == nullptr || !subcommand;
  if (needsCommand && !isOptionWord(left.front())) {
    for (const CommandRow& row : command == nullptr ? tables.commands : command->commands) {
      known.push_back(row.name);
    }
    similar = zell::nearestWord(left.front(), known);
    return "unknown command '" + (command == nullptr ? "" : command->name + " ") + left.front() +
           "'";
  }
  const auto option = std::find_if(left.begin(), left.end(), isOptionWord);
  if (option != left.end()) {
    const std::string name = option->substr(0, option->find('='));
    addOptionNames(tables.options, known);
    addOptionNames(command != nullptr ? command->options : std::vector<OptionRow>(), known);
    similar = zell::nearestWord(name, known);
    return "unknown option '" + name + "'";
  }
  std::string text = left.size() == 1 ? "unexpected argument:" : "unexpected arguments:";
  for (const std::string& word : left) {
    text += " " + word;
  }
  return text;
}

// A word that stands before the command was meant as the command.
bool precedes(const std::vector<std::string>& words, const std::string& word,
              const std::string& command) {
  return std::find(words.begin(), words.end(), word) <
         std::find(words.begin(), words.end(), command);
}

// The library would list the rest in reverse, and report an unknown command as a missing one.
std::string explain(CLI::App& app, const std::vector<std::string>& words,
                    const CLI::ParseError& error) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  const std::vector<std::string> left = app.remaining(true);
  std::string command = chosen.empty() ? "" : chosen.front()->get_name();
  std::string what = error.what();
  std::string similar;
  const bool subcommand = chosen.empty() || !chosen.front()->get_subcommands().empty() ||
                          chosen.front()->get_require_subcommand_min() == 0;
  if (!left.empty() &&
      (chosen.empty() || !subcommand || dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)) {
    if (precedes(words, left.front(), command) && !isOptionWord(left.front())) {
      command.clear();
    }
    const Tables tables = readTables(app);
    what = describeRest(tables, tables.command(command), subcommand, left, similar);
  }
  return what + " (" + (similar.empty() ? "" : "did you mean '" + similar + "'? ") +
         "see runelctl " + (command.empty() ? "" : command + " ") + "--help)";
}

}  // namespace

void complain(const std::string& what) {
  std::cerr << "runelctl: " << terminalSafe(what) << "\n";
}

CommandLine::CommandLine(const Settings& base)
    : settings_(base), commands_(deviceCommands()), locals_(localCommands()) {
  if (settings_.masterSocket.empty()) {
    settings_.masterSocket = defaultMasterSocket();
  }
  app_.set_version_flag("--version", "runelctl " RUNELCTL_VERSION);
  app_.require_subcommand(1);
  app_.get_formatter()->column_width(34);
  defineDeviceOptions();
  defineGeneralOptions();
  defineFleetOptions();
  takeKept(app_);
  defineCommands(commands_, command_, "Commands");
  defineCommands(locals_, local_, "Local commands");
  for (const auto& local : locals_) {
    if (local->hidden()) {
      app_.get_subcommand(local->name())->group("");
    }
  }
}

void CommandLine::defineDeviceOptions() {
  targets_.define(app_, settings_);
  app_.add_option("--master-socket", settings_.masterSocket,
                  "control socket of the master (default: runelctl-master.sock in XDG_RUNTIME_DIR)")
      ->type_name("PATH");
  defineGatewayOptions();
  app_.add_option("--timeout", settings_.programLimit,
                  "limit for the program of exec or sh (default: none)")
      ->check(numberRange(1, kMostProgramSeconds))
      ->each([this](const std::string&) {
        settings_.programLimitGiven = settings_.given.programLimit = true;
      })
      ->type_name("SECONDS");
  app_.add_option("--io-timeout", settings_.ioTimeout,
                  "I/O timeout while an answer is due (default: 30)")
      ->check(secondsRange(0.001))
      ->each([this](const std::string&) { settings_.given.ioTimeout = true; })
      ->type_name("SECONDS");
  app_.add_option("--connect-timeout", settings_.connectTimeout, "connect timeout (default: 10)")
      ->check(secondsRange(0.001))
      ->each([this](const std::string&) { settings_.given.connectTimeout = true; })
      ->type_name("SECONDS");
}

void CommandLine::defineGatewayOptions() {
  const std::string group = "Gateway";
  GatewayOptions& options = settings_.gatewayOptions;
  app_.add_option("--gateway", options.url,
                  "use devices through the gateway https://HOST[:PORT]; -d takes its queries; '': "
                  "none (default: RUNELCTL_GATEWAY, or the inventory's)")
      ->each([this](const std::string&) { settings_.given.gateway = true; })
      ->group(group)
      ->type_name("URL");
  app_.add_option("--token-file", options.tokenFile,
                  "file with the token for the gateway (default: RUNELCTL_TOKEN, or "
                  "~/.config/runelctl/token)")
      ->group(group)
      ->type_name("FILE");
  app_.add_option("--ca-file", options.caFile,
                  "certificates that may sign the gateway's one, in PEM (default: the system's)")
      ->group(group)
      ->type_name("FILE");
  auto* certificate = app_.add_option("--cert-file", options.certificateFile,
                                      "client certificate for the gateway, in PEM")
                          ->group(group)
                          ->type_name("FILE");
  app_.add_option("--key-file", options.keyFile,
                  "its key, in PEM (default: in the file of the certificate)")
      ->needs(certificate)
      ->group(group)
      ->type_name("FILE");
}

void CommandLine::defineGeneralOptions() {
  app_.add_flag("--json", settings_.json, "print one JSON object a line");
  app_.add_flag("-q,--quiet", settings_.quiet, "print no summary, progress or notes");
  app_.add_flag("-v,--verbose", settings_.verbose, "list the changes of push, sync and pull");
  app_.add_option("--color", settings_.colour,
                  "colors of error messages: auto, always or never (default: auto)")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->type_name("WHEN");
  app_.add_flag("-y,--yes", settings_.yes,
                "do not ask before a destructive command on several devices");
  app_.add_option(
          "--memory", settings_.memory,
          "limit for the data of all devices in memory, such as 512M; more goes to temporary "
          "files (default: 256M)")
      ->transform(sizeRange(kLeastMemory, kMostMemory))
      ->type_name("SIZE");
  auto* dryRun = app_.add_flag("-n,--dry-run", settings_.dryRun,
                               "change nothing: print devices and frames; for push, sync and pull "
                               "ask the devices and list the changes");
  app_.add_flag("--offline", settings_.offline,
                "with -n, print frames and send nothing for push, sync and pull too")
      ->needs(dryRun);
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
      ->each([this](const std::string&) { settings_.given.deadline = true; })
      ->group(group)
      ->type_name("SECONDS");
  app_.add_option("--wave", settings_.wave,
                  "devices in each wave, such as 1,10%,rest (default: one wave)")
      ->each([this](const std::string&) { settings_.given.wave = true; })
      ->group(group)
      ->type_name("LIST");
  app_.add_option("--max-fail", settings_.maxFail,
                  "failed devices that do not stop the next wave (default: 0)")
      ->check(numberRange(0, 1000000))
      ->each([this](const std::string&) { settings_.given.maxFail = true; })
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
    takeKept(*sub);
    sub->final_callback([&chosen, made = command.get()] { chosen = made; });
  }
}

int CommandLine::parse(std::vector<std::string> words) {
  json_ = std::find(words.begin(), words.end(), "--json") != words.end();
  std::vector<std::string> reversed(words.size());
  std::transform(words.rbegin(), words.rend(), reversed.begin(), kept);
  try {
    app_.parse(reversed);
  } catch (const CLI::Success& help) {
    std::ostringstream text;
    const int status = app_.exit(help, text);
    return writeOut(Style(), text.str()) ? status : kExitTaskFailed;
  } catch (const CLI::ParseError& error) {
    return refuse(explain(app_, words, error));
  }
  settings_.plan =
      settings_.dryRun && !settings_.offline && command_ != nullptr && command_->plans();
  settings_.dryRun = settings_.dryRun && !settings_.plan;
  settings_.openSpool();
  settings_.arrange = prefix_ ? Arrange::prefix : (group_ ? Arrange::group : settings_.arrange);
  const std::string wrong = checkChosen();
  if (!wrong.empty()) {
    return refuse(wrong);
  }
  return -1;
}

// The command that the words name, even if they are no valid command line.
const LocalCommand* CommandLine::namedLocal() const {
  const std::vector<CLI::App*> chosen = app_.get_subcommands();
  const auto named = std::find_if(locals_.begin(), locals_.end(), [&](const auto& local) {
    return !chosen.empty() && chosen.front()->get_name() == local->name();
  });
  return named == locals_.end() ? nullptr : named->get();
}

int CommandLine::refuse(const std::string& what) const {
  const LocalCommand* const local = namedLocal();
  if (const auto status = local != nullptr ? local->refuse(what, json_) : std::nullopt) {
    return *status;
  }
  complain(what);
  return kExitUsage;
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

runel::Result<void> CommandLine::readTargets() {
  if (local_ != nullptr && local_->devices() == LocalCommand::Devices::none) {
    return {};
  }
  return targets_.read(settings_,
                       local_ != nullptr && local_->devices() == LocalCommand::Devices::inventory);
}

}  // namespace runelctl
