// SPDX-License-Identifier: Apache-2.0
// The commands `master` and `devices`.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <runel/request.h>
#include "cli/command_line.h"

#include "cli/gateway_targets.h"
#include "cli/local_command.h"
#include "cli/signals.h"
#include "cli/targets.h"
#include "client/io/master_client.h"
#include "commands/number_range.h"
#include "control/master.h"
#include "inventory/inventory_file.h"
#include "output/report.h"
#include "output/standard_output.h"
#include "output/table.h"
#include "output/text.h"

namespace runelctl {
namespace {

constexpr double kMostShared = 86400;

class MasterCommand : public LocalCommand {
 public:
  MasterCommand() : LocalCommand("master", "run a master that devices connect to") {}

  void define(CLI::App& app) override {
    app.add_option("--listen", listen_,
                   "address to listen on (default: 127.0.0.1:5112); 0.0.0.0 for all interfaces")
        ->type_name("ADDRESS[:PORT]");
    app.add_option("--allow", addresses_,
                   "accept only these addresses; repeatable, comma-separated")
        ->allow_extra_args(false)
        ->type_name("ADDRESS[/BITS]");
    app.add_option("--allow-hostid", hostids_,
                   "accept only these host identifiers; repeatable, comma-separated")
        ->allow_extra_args(false)
        ->type_name("ID");
    app.add_option("--shared-address", shared_,
                   "expect several devices at one address: treat a connection that is silent for "
                   "SECONDS as a device, "
                   "not as an agent (see the manual for the risk)")
        ->check(numberRange(0.001, kMostShared))
        ->type_name("SECONDS");
    app.add_flag("--xml", xml_, "print the clauses of agents");
    app.add_option("--xml-log", xmlLog_, "append the clauses of agents to FILE, as JSON objects")
        ->type_name("FILE");
  }

  std::string check(const Settings& settings) override {
    if (settings.dryRun) {
      return "master: --dry-run is not supported";
    }
    if (!listen_.empty() && !parseListen(listen_, settings_.host, settings_.port)) {
      return "--listen: invalid address '" + listen_ + "': expected ADDRESS[:PORT]";
    }
    for (const std::string& list : addresses_) {
      const runel::Result<void> allowed = settings_.options.allowAddresses(list);
      if (!allowed) {
        return "--allow: " + allowed.error().text();
      }
    }
    for (const std::string& list : hostids_) {
      const runel::Result<void> allowed = settings_.options.allowHostids(list);
      if (!allowed) {
        return "--allow-hostid: " + allowed.error().text();
      }
    }
    return "";
  }

  int run(const Settings& settings, const Style& style) override {
    settings_.socket = settings.masterSocket;
    settings_.options.setTimeout(settings.limits().ioTimeout());
    if (shared_ > 0) {
      settings_.options.setShared(runel::Milliseconds(std::lround(shared_ * 1000)));
    }
    runel::Loop loop;
    // Before the socket exists: a SIGTERM at its first sight must already end the master cleanly.
    const Signals signals(loop, [&](int) { loop.stop(); });
    Journal journal(loop, style, xml_);
    Master master(loop, settings_, journal);
    std::string wrong = xmlLog_.empty() ? "" : journal.keepClauses(xmlLog_);
    if (wrong.empty()) {
      wrong = master.open();
    }
    if (!wrong.empty()) {
      tellFailure(name(), {Fault::local, wrong, "", 0}, style);
      return kExitTaskFailed;
    }
    loop.run();
    return 0;
  }

 private:
  std::string listen_;
  std::vector<std::string> addresses_;
  std::vector<std::string> hostids_;
  double shared_ = 0;
  bool xml_ = false;
  std::string xmlLog_;
  MasterSettings settings_;
};

std::string ageText(std::int64_t seconds) {
  const std::int64_t days = seconds / 86400;
  char text[48];
  (void)std::snprintf(text, sizeof text, "%02d:%02d:%02d", static_cast<int>(seconds / 3600 % 24),
                      static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
  return days == 0 ? text : std::to_string(days) + "d " + text;
}

std::vector<std::string> row(const Json& device) {
  const auto number = [&](const char* key) { return device.value(key, std::uint64_t{0}); };
  return {device.value("hostid", ""),
          device.value("address", "") + ":" + std::to_string(number("port")),
          device.value("devicetype", ""),
          ageText(device.value("connected_s", std::int64_t{0})),
          std::to_string(number("connects")),
          std::to_string(number("losses")),
          std::to_string(number("requests")),
          sizeText(number("bytes_to_device")),
          sizeText(number("bytes_from_device")),
          std::to_string(number("agents")),
          std::to_string(number("clauses"))};
}

std::vector<std::string> gatewayRow(const Json& device) {
  const auto text = [&](const char* key) {
    const auto found = device.find(key);
    return found != device.end() && found->is_string() ? found->get<std::string>() : "";
  };
  return {text("device"), text("state"), text("address"), text("devicetype")};
}

class DevicesCommand : public LocalCommand {
 public:
  DevicesCommand() : LocalCommand("devices", "list the devices at the master or gateway") {}

  void define(CLI::App& app) override {
    app.add_flag("--names", names_,
                 "print only names, one a line, as -d @NAME takes them, or -d NAME with a gateway");
  }

  int run(const Settings& settings, const Style& style) override {
    std::string lines;
    const auto error = read(settings, lines);
    if (error) {
      tellFailure(name(), *error, style);
      return exitStatusOf(Error(*error));
    }
    if (!style.json) {
      lines = tableOf(lines, style);
    } else if (style.outTerminal) {
      lines = terminalSafeJson(lines);
    }
    return writeOut(style, lines) ? 0 : kExitTaskFailed;
  }

 private:
  // Those of the gateway, if one is chosen.
  std::optional<runel::Error> read(const Settings& settings, std::string& lines) {
    Settings own = settings;
    auto inventory = loadInventory(settings.inventoryFile);
    own.inventory = inventory ? *std::move(inventory) : nullptr;
    if (const auto chosen = chooseGateway(own); !chosen) {
      return chosen.error();
    }
    atGateway_ = own.gateway != nullptr;
    if (!atGateway_) {
      return runel::listDevices(settings.masterSocket, settings.limits().ioTimeout(), lines);
    }
    const auto devices = own.gateway->list("@all", listLimit(settings));
    if (!devices) {
      return devices.error();
    }
    for (const ListedDevice& device : *devices) {
      lines += device.line + "\n";
    }
    return std::nullopt;
  }

  [[nodiscard]] std::string tableOf(const std::string& lines, const Style& style) const {
    Table table;
    std::string names;
    std::istringstream each(lines);
    std::string line;
    while (std::getline(each, line)) {
      const Json device = Json::parse(line, nullptr, false);
      if (!device.is_object()) {
        continue;
      }
      if (names_) {
        names += style.name(device.value("device", "")) + "\n";
      } else {
        table.push_back(atGateway_ ? gatewayRow(device) : row(device));
      }
    }
    std::sort(table.begin(), table.end());
    if (!names_ && !style.quiet && atGateway_) {
      table.insert(table.begin(), {"DEVICE", "STATE", "ADDRESS", "TYPE"});
    } else if (!names_ && !style.quiet) {
      table.insert(table.begin(), {"HOSTID", "ADDRESS", "TYPE", "UP", "CONNECTS", "LOSSES",
                                   "REQUESTS", "SENT", "RECEIVED", "AGENTS", "CLAUSES"});
    }
    return names + tableText(table);
  }

  bool names_ = false;
  bool atGateway_ = false;
};

}  // namespace

void addMasterCommands(LocalCommands& commands) {
  commands.push_back(std::make_unique<MasterCommand>());
  commands.push_back(std::make_unique<DevicesCommand>());
}

}  // namespace runelctl
