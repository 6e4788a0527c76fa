// SPDX-License-Identifier: Apache-2.0
// The command `inventory`.
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/command_line.h"
#include "cli/local_command.h"
#include "inventory/inventory_file.h"
#include "output/report.h"
#include "output/standard_output.h"
#include "output/table.h"
#include "output/text.h"

namespace runelctl {
namespace {

std::string tagsText(const std::map<std::string, std::string>& tags) {
  std::vector<std::string> all;
  all.reserve(tags.size());
  for (const auto& [key, value] : tags) {
    all.push_back(key + "=" + value);
  }
  return joined(all, ",");
}

// HOST[:PORT] without the default port, or @NAME.
std::string addressText(const runel::Address& address) {
  const auto parsed = parseAddress(address.text());
  return parsed ? parsed->name() : address.text();
}

Json openingObject() {
  return Json{{"v", kJsonVersion}, {"task", "inventory"}};
}

class InventoryCommand : public LocalCommand {
 public:
  InventoryCommand()
      : LocalCommand("inventory", "check the inventory, or list the selected devices") {}

  void define(CLI::App& app) override {
    auto* names = app.add_flag("--names", names_, "list only the names of the devices, one a line");
    app.add_flag("--groups", groups_, "list only the names of the groups, one a line")
        ->excludes(names);
    app.add_option("ACTION", action_, "check or list")
        ->required()
        ->check(CLI::IsMember({"check", "list"}));
  }

  [[nodiscard]] Devices devices() const override {
    return action_ == "list" ? Devices::inventory : Devices::none;
  }

  int run(const Settings& settings, const Style& style) override {
    return action_ == "list" ? list(settings, style) : checkFile(settings, style);
  }

 private:
  [[nodiscard]] int checkFile(const Settings& settings, const Style& style) const {
    InventoryFile file(settings.inventoryFile);
    const runel::Result<void> loaded = file.load();
    if (!loaded || !file.inventory()) {
      const std::string why = !loaded ? loaded.error().text() : noInventoryText();
      tellFailure(name(), Error(Fault::local, why), style);
      return kExitUsage;
    }
    for (const InventoryProblem& problem : file.problems()) {
      tell(file, problem, style);
    }
    return conclude(file, style);
  }

  static void tell(const InventoryFile& file, const InventoryProblem& problem, const Style& style) {
    if (!style.json) {
      complain(file.text(problem));
      return;
    }
    Json object = openingObject();
    object["entry"] = "problem";
    putBytes(object, "file", file.path());
    object["line"] = problem.line;
    putBytes(object, "text", problem.text);
    (void)writeOut(style, object.dump() + "\n");  // the exit status tells it too
  }

  [[nodiscard]] static int conclude(const InventoryFile& file, const Style& style) {
    const bool ok = file.problems().empty();
    const int status = ok ? 0 : kExitUsage;
    const std::size_t devices = file.inventory()->devices().size();
    const std::size_t groups = file.inventory()->groups().size();
    std::string line = style.name(file.path()) + ": " + countText(devices, "device") + ", " +
                       countText(groups, "group") + "\n";
    if (style.json) {
      Json object = openingObject();
      object.update({{"ok", ok}, {"status", status}, {"devices", devices}, {"groups", groups}});
      putBytes(object, "file", file.path());
      line = object.dump() + "\n";
    }
    const bool shown = style.json || (ok && !style.quiet);
    return !shown || writeOut(style, line) ? status : kExitTaskFailed;
  }

  [[nodiscard]] int list(const Settings& settings, const Style& style) const {
    std::string text;
    if (groups_) {
      for (const std::string& group :
           settings.inventory ? settings.inventory->groupNames() : std::vector<std::string>()) {
        text += group + "\n";
      }
    } else if (style.json) {
      text = objects(settings);
    } else {
      text = names_ ? names(settings, style) : table(settings, style);
    }
    return writeOut(style, text) ? 0 : kExitTaskFailed;
  }

  [[nodiscard]] static std::string names(const Settings& settings, const Style& style) {
    std::string text;
    for (const runel::Address& target : settings.targets) {
      text += style.name(target.name()) + "\n";
    }
    return text;
  }

  [[nodiscard]] static std::string table(const Settings& settings, const Style& style) {
    Table rows;
    if (!style.quiet) {
      rows.push_back({"NAME", "ADDRESS", "GROUPS", "TAGS"});
    }
    for (const runel::Address& target : settings.targets) {
      const InventoryDevice* device = deviceOf(settings, target);
      rows.push_back({target.name(), addressText(target),
                      device == nullptr ? "" : joined(device->groups, ","),
                      device == nullptr ? "" : tagsText(device->tags)});
    }
    return tableText(rows);
  }

  [[nodiscard]] static std::string objects(const Settings& settings) {
    std::string lines;
    for (const runel::Address& target : settings.targets) {
      Json object = openingObject();
      object["entry"] = "device";
      object["device"] = target.name();
      object["address"] = addressText(target);
      if (const InventoryDevice* device = deviceOf(settings, target)) {
        object["groups"] = device->groups;
        for (const auto& [key, value] : device->tags) {
          putBytes(object["tags"], key, value);
        }
        putTimeouts(object, device->timeouts);
      }
      lines += object.dump() + "\n";
    }
    return lines;
  }

  static void putTimeouts(Json& object, const Timeouts& timeouts) {
    const std::pair<const char*, std::optional<double>> all[] = {
        {"timeout", timeouts.program},
        {"connect_timeout", timeouts.connect},
        {"io_timeout", timeouts.io},
        {"deadline", timeouts.deadline}};
    for (const auto& [key, seconds] : all) {
      if (seconds) {
        object[key] = *seconds;
      }
    }
  }

  static const InventoryDevice* deviceOf(const Settings& settings, const runel::Address& target) {
    return settings.inventory ? settings.inventory->device(target) : nullptr;
  }

  std::string action_;
  bool names_ = false;
  bool groups_ = false;
};

}  // namespace

void addInventoryCommand(LocalCommands& commands) {
  commands.push_back(std::make_unique<InventoryCommand>());
}

}  // namespace runelctl
