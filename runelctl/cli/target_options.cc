// SPDX-License-Identifier: Apache-2.0
#include "cli/target_options.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <utility>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/targets.h"
#include "client/io/master_client.h"
#include "inventory/inventory_file.h"
#include "output/text.h"

namespace runelctl {
namespace {

constexpr char kUsualDevice[] = "127.0.0.1";

runel::Error targetError(const std::string& what) {
  return {runel::Kind::local, runel::Cause::other, what};
}

// Adds the place of an invalid value to its error.
runel::Result<void> locate(const std::string& place, const runel::Result<void>& result) {
  const bool invalid = !result && result.error().kind() == runel::Kind::local;
  return invalid ? targetError(place + ": " + result.error().text()) : result;
}

runel::Result<void> addEach(const std::string& option, const std::vector<std::string>& values,
                            const std::function<runel::Result<void>(const std::string&)>& add) {
  for (const std::string& value : values) {
    const runel::Result<void> added = add(value);
    if (!added) {
      return locate(option, added);
    }
  }
  return {};
}

runel::Result<void> addLines(const std::vector<TargetLine>& targets, Selector& selector) {
  for (const TargetLine& target : targets) {
    const runel::Result<void> added = target.name.empty()
                                          ? selector.addElement(target.device)
                                          : selector.addNamed(target.name, target.device);
    if (!added) {
      return locate("line " + std::to_string(target.number), added);
    }
  }
  return {};
}

// The devices without a selection.
runel::Result<void> addUsual(const Settings& settings, bool wholeInventory, Selector& selector) {
  if (wholeInventory) {
    return selector.addAll();
  }
  for (const runel::Address& target : settings.targets) {
    selector.addAddress(target);
  }
  const char* usual = std::getenv("RUNELCTL_DEVICE");
  if (!settings.targets.empty()) {
    return {};
  }
  return usual != nullptr && *usual != '\0' ? locate("RUNELCTL_DEVICE", selector.addList(usual))
                                            : selector.addList(kUsualDevice);
}

void storeTargets(const std::vector<Selected>& selected, Settings& settings) {
  settings.targets.clear();
  settings.timeouts.clear();
  for (const Selected& one : selected) {
    settings.targets.push_back(one.address);
    Timeouts timeouts = one.device == nullptr ? Timeouts() : one.device->timeouts;
    timeouts.program = settings.given.programLimit ? std::nullopt : timeouts.program;
    timeouts.connect = settings.given.connectTimeout ? std::nullopt : timeouts.connect;
    timeouts.io = settings.given.ioTimeout ? std::nullopt : timeouts.io;
    timeouts.deadline = settings.given.deadline ? std::nullopt : timeouts.deadline;
    if (!timeouts.empty()) {
      settings.timeouts[one.address.text()] = timeouts;
    }
  }
}

// What neither the command line nor the inventory sets has its usual value: in the shell, an
// earlier selection may have set a different value.
void storeRunDefaults(const RunDefaults& run, Settings& settings) {
  const Settings usual;
  settings.jobs = settings.jobsGiven ? settings.jobs : run.jobs.value_or(usual.jobs);
  settings.maxFail =
      settings.given.maxFail ? settings.maxFail : run.maxFail.value_or(usual.maxFail);
  settings.wave = settings.given.wave ? settings.wave : run.wave.value_or(usual.wave);
}

}  // namespace

void TargetOptions::define(CLI::App& app, Settings& settings) {
  app.add_option("-d,--device", devices_,
                 "name, HOST[:PORT], range such as gw-[01-50], @NAME or @all at the master; "
                 "repeatable, comma-separated (default: RUNELCTL_DEVICE, or 127.0.0.1)")
      ->allow_extra_args(false)
      ->type_name("DEVICE");
  app.add_option("--devices", file_, "file with one device a line ('-': standard input)")
      ->each([this](const std::string&) { fileGiven_ = true; })
      ->type_name("FILE");
  app.add_option("-g,--device-group", groups_, "group of the inventory; repeatable")
      ->allow_extra_args(false)
      ->type_name("GROUP");
  app.add_flag("-a,--all", all_, "all devices of the inventory");
  app.add_option("--tag", tags_,
                 "of the selected devices, or of all in the inventory, those with this tag; "
                 "repeatable: all must match")
      ->allow_extra_args(false)
      ->type_name("KEY=VALUE");
  app.add_option("-x,--except", except_, "leave out these devices, in the forms of --device")
      ->allow_extra_args(false)
      ->type_name("DEVICE");
  app.add_option("--inventory", settings.inventoryFile,
                 "inventory (default: ~/.config/runelctl/devices.toml, or "
                 "/etc/runelctl/devices.toml)")
      ->each([&settings](const std::string&) { settings.inventory.reset(); })
      ->type_name("FILE");
}

bool TargetOptions::given() const {
  return all_ || fileGiven_ || !devices_.empty() || !groups_.empty() || !tags_.empty();
}

runel::Result<void> TargetOptions::read(Settings& settings, bool wholeInventory) const {
  if (!settings.inventory) {
    auto inventory = loadInventory(settings.inventoryFile);
    if (!inventory) {
      return inventory.error();
    }
    settings.inventory = *std::move(inventory);
  }
  if (const runel::Result<void> chosen = chooseGateway(settings); !chosen) {
    return chosen;
  }
  if (settings.gateway) {
    return readFromGateway(settings);
  }
  Selector selector(settings.inventory, [&settings] { return connectedDevices(settings); });
  runel::Result<void> done =
      given() ? select(selector) : addUsual(settings, wholeInventory, selector);
  if (done) {
    done = reduce(selector);
  }
  const runel::Result<RunDefaults> run = selector.runDefaults(settings.given.wave);
  if (!done || !run) {
    return !done ? done : run.error();
  }
  // A line of the shell without a selection keeps also the values of the shell's selection.
  const bool inherits = !given() && !settings.targets.empty();
  storeTargets(selector.selected(), settings);
  if (!inherits) {
    storeRunDefaults(*run, settings);
  }
  return settings.targets.empty() ? targetError("no device matches the selection")
                                  : runel::Result<void>();
}

runel::Result<void> TargetOptions::select(Selector& selector) const {
  const bool onlyTags = !all_ && !fileGiven_ && devices_.empty() && groups_.empty();
  runel::Result<void> done =
      addEach("-d", devices_, [&](const std::string& list) { return selector.addList(list); });
  if (done && fileGiven_) {
    done = selectFile(selector);
  }
  if (done) {
    done = addEach("-g", groups_, [&](const std::string& name) { return selector.addGroup(name); });
  }
  if (done && (all_ || onlyTags)) {
    done = locate(all_ ? "-a" : "--tag", selector.addAll());
  }
  return done;
}

runel::Result<void> TargetOptions::readFromGateway(Settings& settings) const {
  runel::Result<GatewaySelection> selection = gatewaySelection();
  if (!selection) {
    return selection.error();
  }
  const char* usual = std::getenv("RUNELCTL_DEVICE");
  const bool inherits = !given() && !settings.targets.empty();
  if (!given() && !inherits) {
    if (usual == nullptr || *usual == '\0') {
      return targetError("no device is selected: use -d QUERY, or -a for all of " +
                         settings.gateway->url());
    }
    selection->queries.emplace_back(usual);
  }
  if (inherits) {
    for (const runel::Address& target : settings.targets) {
      selection->names.push_back(target.through());
    }
  }
  const auto names = selectAtGateway(*settings.gateway, *selection, listLimit(settings));
  if (!names) {
    return names.error();
  }
  Selector selector(settings.inventory, nullptr);
  for (const std::string& name : *names) {
    selector.addAddress(runel::Address::behindMaster(name).named(name));
  }
  storeTargets(selector.selected(), settings);
  if (!inherits) {
    const runel::Result<RunDefaults> run = selector.runDefaults(settings.given.wave);
    storeRunDefaults(run ? *run : RunDefaults(), settings);
  }
  return settings.targets.empty() ? targetError("no device matches the selection")
                                  : runel::Result<void>();
}

// Lines of a file are names.
runel::Result<GatewaySelection> TargetOptions::gatewaySelection() const {
  GatewaySelection selection{devices_, {}, tags_, except_};
  for (const std::string& group : groups_) {
    selection.queries.push_back("@" + group);
  }
  const bool onlyTags = !tags_.empty() && !fileGiven_ && devices_.empty() && groups_.empty();
  if (all_ || onlyTags) {
    selection.queries.emplace_back("@all");
  }
  if (!fileGiven_) {
    return selection;
  }
  std::vector<TargetLine> lines;
  const runel::Result<void> read = readFile(lines);
  if (!read) {
    return read.error();
  }
  for (const TargetLine& line : lines) {
    selection.names.push_back(line.device.substr(line.device.front() == '@' ? 1 : 0));
  }
  return selection;
}

runel::Result<void> TargetOptions::readFile(std::vector<TargetLine>& targets) const {
  std::ifstream file;
  if (file_ != "-") {
    file.open(file_);
    if (!file) {
      return targetError(file_ + ": " + runel::systemText(errno));
    }
  }
  std::string why;
  if (!readTargetLines(file_ == "-" ? std::cin : file, targets, why)) {
    return targetError(file_ + ": " + why);
  }
  return targets.empty() ? targetError(file_ + ": no devices listed") : runel::Result<void>();
}

runel::Result<void> TargetOptions::selectFile(Selector& selector) const {
  std::vector<TargetLine> lines;
  const runel::Result<void> read = readFile(lines);
  return read ? locate(file_, addLines(lines, selector)) : read;
}

runel::Result<void> TargetOptions::reduce(Selector& selector) const {
  runel::Result<void> done =
      addEach("--tag", tags_, [&](const std::string& tag) { return selector.keepTagged(tag); });
  if (done) {
    done =
        addEach("-x", except_, [&](const std::string& list) { return selector.removeList(list); });
  }
  return done;
}

runel::Result<std::vector<std::string>> connectedDevices(const Settings& settings) {
  std::string lines;
  const auto error =
      runel::listDevices(settings.masterSocket, settings.limits().ioTimeout(), lines);
  if (error) {
    return *error;
  }
  std::map<std::string, std::vector<std::string>> places;  // by name
  std::istringstream each(lines);
  std::string line;
  while (std::getline(each, line)) {
    const Json device = Json::parse(line, nullptr, false);
    if (device.is_object()) {
      places[device.value("device", "")].push_back(device.value("address", "") + ":" +
                                                   std::to_string(device.value("port", 0)));
    }
  }
  std::vector<std::string> names;
  for (const auto& [name, where] : places) {
    // The master refuses a name that several devices have.
    if (where.size() == 1) {
      names.push_back(name);
    } else {
      names.insert(names.end(), where.begin(), where.end());
    }
  }
  if (names.empty()) {
    return runel::Error(runel::Kind::link, runel::Cause::refusedByMaster,
                        "no device is connected to the master");
  }
  return names;
}

}  // namespace runelctl
