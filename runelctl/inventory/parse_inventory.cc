// SPDX-License-Identifier: Apache-2.0
#include "inventory/parse_inventory.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <unordered_set>
#include <utility>

#include <toml++/toml.h>

#include <runel/fleet.h>

#include "inventory/name_pattern.h"
#include "text/nearest.h"
#include "text/stray_character.h"

namespace runelctl {
namespace {

// A file of another kind would have a problem in each line.
constexpr std::size_t kMostProblems = 50;
// A device may be in several groups.
constexpr std::size_t kMostMembers = 10 * kMostNames;
constexpr double kLeastTime = 0.001;
constexpr double kMostTime = 86400.0 * 365;
constexpr int kMostProgramTime = 2147483647;
constexpr int kMostParallel = 100000;
constexpr int kMostFailures = 1000000;
constexpr std::size_t kLongestTag = 256;

int lineOf(const toml::source_region& region) {
  return static_cast<int>(region.begin.line);
}

// One entry of a table.
struct TomlEntry {
  std::string key;
  int line;
  const toml::node* value;
};

// The library sorts a table by its keys. Returns its entries in the order of the file.
std::vector<TomlEntry> entriesInOrder(const toml::table& table) {
  std::vector<TomlEntry> entries;
  std::vector<std::pair<toml::source_position, std::size_t>> order;
  for (auto&& [key, node] : table) {
    order.emplace_back(key.source().begin, entries.size());
    entries.push_back({std::string(key.str()), lineOf(key.source()), &node});
  }
  std::sort(order.begin(), order.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first < b.first : a.second < b.second;
  });
  std::vector<TomlEntry> sorted;
  sorted.reserve(order.size());
  for (const auto& [position, index] : order) {
    sorted.push_back(std::move(entries[index]));
  }
  return sorted;
}

const std::string* textOf(const toml::node& node) {
  const toml::value<std::string>* value = node.as_string();
  return value == nullptr ? nullptr : &value->get();
}

// Tags may be written as numbers and truth values too.
std::optional<std::string> tagValue(const toml::node& node) {
  if (const std::string* text = textOf(node)) {
    return *text;
  }
  if (const auto* number = node.as_integer()) {
    return std::to_string(number->get());
  }
  if (const auto* truth = node.as_boolean()) {
    return truth->get() ? "true" : "false";
  }
  return std::nullopt;
}

// The keys of the timeouts and of the values for a run, after the @p first ones.
std::vector<std::string> keysWithDefaults(std::vector<std::string> first) {
  first.insert(first.end(), {"timeout", "io-timeout", "connect-timeout", "deadline", "jobs",
                             "max-fail", "wave"});
  return first;
}

bool printable(const std::string& text) {
  return text.size() <= kLongestTag && std::none_of(text.begin(), text.end(), [](char byte) {
           return (byte >= 0 && byte < ' ') || byte == '\x7f';
         });
}

class InventoryParser {
 public:
  explicit InventoryParser(Inventory& inventory) : inventory_(inventory) {}

  std::vector<InventoryProblem> parse(const toml::table& file) {
    const std::vector<TomlEntry> entries = entriesInOrder(file);
    // Groups refer to devices, which may follow them.
    eachTable(entries, "devices", [this](const toml::table& table) { readDevices(table); });
    eachTable(entries, "groups", [this](const toml::table& table) { readGroups(table); });
    eachTable(entries, "defaults", [this](const toml::table& table) { readDefaults(table); });
    for (const TomlEntry& entry : entries) {
      if (entry.key != "devices" && entry.key != "groups" && entry.key != "defaults") {
        unknownKey(entry, "", {"devices", "groups", "defaults"});
      }
    }
    inventory_.resolveTimeouts();
    std::stable_sort(problems_.begin(), problems_.end(),
                     [](const auto& a, const auto& b) { return a.line < b.line; });
    return std::move(problems_);
  }

 private:
  void problem(int line, const std::string& text) {
    if (problems_.size() < kMostProblems) {
      problems_.push_back({line, text});
    }
  }

  void unknownKey(const TomlEntry& entry, const std::string& owner,
                  const std::vector<std::string>& known) {
    problem(entry.line,
            owner + "unknown key '" + entry.key + "'" + zell::suggestion(entry.key, known));
  }

  void eachTable(const std::vector<TomlEntry>& entries, const std::string& key,
                 const std::function<void(const toml::table&)>& read) {
    for (const TomlEntry& entry : entries) {
      if (entry.key != key) {
        continue;
      }
      if (const toml::table* table = entry.value->as_table()) {
        read(*table);
      } else {
        problem(entry.line, key + ": expected a table");
      }
    }
  }

  void readDefaults(const toml::table& table) {
    Defaults defaults;
    for (const TomlEntry& entry : entriesInOrder(table)) {
      if (entry.key == "gateway") {
        readGateway(entry, defaults.gateway);
      } else if (!readTimeout(entry, "defaults: ", defaults.timeouts) &&
                 !readRunDefault(entry, "defaults: ", defaults.run)) {
        unknownKey(entry, "defaults: ", keysWithDefaults({"gateway"}));
      }
    }
    inventory_.setDefaults(defaults);
  }

  // Its parts are checked when it is used: an option may replace it.
  void readGateway(const TomlEntry& entry, std::string& gateway) {
    const std::string* text = textOf(*entry.value);
    if (text != nullptr && (text->rfind("https://", 0) == 0 || text->rfind("http://", 0) == 0)) {
      gateway = *text;
    } else {
      problem(entry.line, "defaults: gateway: expected https://HOST[:PORT]");
    }
  }

  // Returns false for a key that is no timeout.
  bool readTimeout(const TomlEntry& entry, const std::string& owner, Timeouts& timeouts) {
    if (entry.key == "timeout") {
      readNumber(entry, owner, 1, kMostProgramTime, timeouts.program);
    } else if (entry.key == "io-timeout") {
      readSeconds(entry, owner, kLeastTime, timeouts.io);
    } else if (entry.key == "connect-timeout") {
      readSeconds(entry, owner, kLeastTime, timeouts.connect);
    } else if (entry.key == "deadline") {
      readSeconds(entry, owner, 0, timeouts.deadline);
    } else {
      return false;
    }
    return true;
  }

  void readSeconds(const TomlEntry& entry, const std::string& owner, double least,
                   std::optional<double>& place) {
    const std::optional<double> seconds =
        entry.value->is_number() ? entry.value->value<double>() : std::nullopt;
    if (seconds && *seconds >= least && *seconds <= kMostTime) {
      place = seconds;
    } else {
      problem(entry.line, owner + entry.key + ": expected seconds, at least " +
                              (least > 0 ? "0.001" : "0 (none)"));
    }
  }

  bool readRunDefault(const TomlEntry& entry, const std::string& owner, RunDefaults& run) {
    if (entry.key == "jobs") {
      readNumber(entry, owner, 1, kMostParallel, run.jobs);
    } else if (entry.key == "max-fail") {
      readNumber(entry, owner, 0, kMostFailures, run.maxFail);
    } else if (entry.key == "wave") {
      const std::string* text = textOf(*entry.value);
      if (text != nullptr && runel::FleetOptions().setWaves(*text)) {
        run.wave = *text;
      } else {
        problem(entry.line, owner + "wave: expected a list of sizes such as \"1,10%,rest\"");
      }
    } else {
      return false;
    }
    return true;
  }

  void readNumber(const TomlEntry& entry, const std::string& owner, int least, int most,
                  std::optional<int>& place) {
    const auto* number = entry.value->as_integer();
    if (number != nullptr && number->get() >= least && number->get() <= most) {
      place = static_cast<int>(number->get());
    } else {
      problem(entry.line, owner + entry.key + ": expected a number from " + std::to_string(least) +
                              " to " + std::to_string(most));
    }
  }

  void readDevices(const toml::table& table) {
    for (const TomlEntry& entry : entriesInOrder(table)) {
      readDevice(entry);
    }
  }

  // "NAME = 'ADDRESS'", or a table. The name and the address may have ranges.
  void readDevice(const TomlEntry& entry) {
    InventoryDevice device{"", runel::Address("localhost"), entry.line};
    std::string address;
    if (const std::string* text = textOf(*entry.value)) {
      address = *text;
    } else if (const toml::table* table = entry.value->as_table()) {
      readDeviceTable(entry.key, *table, device, address);
    } else {
      problem(entry.line, "device " + entry.key + ": expected an address or a table");
      return;
    }
    addDevices(entry, address.empty() ? entry.key : address, device);
  }

  void readDeviceTable(const std::string& name, const toml::table& table, InventoryDevice& device,
                       std::string& address) {
    const std::string owner = "device " + name + ": ";
    for (const TomlEntry& entry : entriesInOrder(table)) {
      if (entry.key == "address") {
        const std::string* text = textOf(*entry.value);
        if (text == nullptr || text->empty()) {
          problem(entry.line, owner + "address: expected HOST[:PORT] or @NAME");
        } else {
          address = *text;
        }
      } else if (entry.key == "tags") {
        readTags(entry, owner, device.tags);
      } else if (!readTimeout(entry, owner, device.defaults.timeouts) &&
                 !readRunDefault(entry, owner, device.defaults.run)) {
        unknownKey(entry, owner, keysWithDefaults({"address", "tags"}));
      }
    }
  }

  void readTags(const TomlEntry& entry, const std::string& owner,
                std::map<std::string, std::string>& tags) {
    const toml::table* table = entry.value->as_table();
    if (table == nullptr) {
      problem(entry.line, owner + "tags: expected a table such as { site = \"north\" }");
      return;
    }
    for (const TomlEntry& tag : entriesInOrder(*table)) {
      const std::optional<std::string> value = tagValue(*tag.value);
      if (!isInventoryName(tag.key)) {
        problem(tag.line, owner + "invalid tag '" + tag.key + "'");
      } else if (!value || !printable(*value)) {
        problem(tag.line, owner + "tag " + tag.key + ": expected a short text");
      } else {
        tags[tag.key] = *value;
      }
    }
  }

  void addDevices(const TomlEntry& entry, const std::string& address,
                  const InventoryDevice& common) {
    const std::string owner = "device " + entry.key + ": ";
    const runel::Result<NamePattern> names = NamePattern::parse(entry.key);
    const runel::Result<NamePattern> addresses = NamePattern::parse(address);
    if (!names || !addresses) {
      problem(entry.line, owner + (!names ? names : addresses).error().text());
      return;
    }
    if (addresses->size() != names->size()) {
      problem(entry.line, owner + std::to_string(names->size()) + " names, but " +
                              std::to_string(addresses->size()) + " addresses");
      return;
    }
    names_ += names->size();
    if (names_ > kMostNames) {
      problem(entry.line, "more than " + std::to_string(kMostNames) + " devices");
      return;
    }
    const std::vector<std::string> allNames = names->names();
    const std::vector<std::string> allAddresses = addresses->names();
    for (std::size_t i = 0; i < allNames.size(); ++i) {
      if (!addDevice(allNames[i], allAddresses[i], common)) {
        return;  // the rest of the range would fail for the same reason
      }
    }
  }

  bool addDevice(const std::string& name, const std::string& address, InventoryDevice device) {
    if (!isInventoryName(name)) {
      problem(device.line,
              "invalid device name '" + name + "': expected letters, digits, '.', '_' and '-'");
      return false;
    }
    const runel::Result<runel::Address> parsed = runel::Address::parse(address);
    if (!parsed) {
      problem(device.line, "device " + name + ": " + parsed.error().text());
      return false;
    }
    device.name = name;
    device.address = parsed->named(name);
    const int line = device.line;
    const InventoryDevice* same = inventory_.add(std::move(device));
    if (same != nullptr) {
      const std::string where = " (line " + std::to_string(same->line) + ")";
      problem(line, same->name == name
                        ? "device " + name + " is defined twice" + where
                        : "device " + name + " has the address of device " + same->name + where);
    }
    return same == nullptr;
  }

  void readGroups(const toml::table& table) {
    for (const TomlEntry& entry : entriesInOrder(table)) {
      const std::string owner = "group " + entry.key + ": ";
      InventoryGroup group{entry.key, entry.line};
      const toml::table* content = entry.value->as_table();
      if (!isInventoryName(entry.key)) {
        problem(entry.line, "invalid group name '" + entry.key +
                                "': expected letters, digits, '.', '_' and '-'");
      } else if (content == nullptr) {
        readMembers(entry, owner, group);
      } else {
        readGroupTable(*content, owner, group);
      }
      inventory_.add(std::move(group));
    }
  }

  void readGroupTable(const toml::table& table, const std::string& owner, InventoryGroup& group) {
    for (const TomlEntry& entry : entriesInOrder(table)) {
      if (entry.key == "devices") {
        readMembers(entry, owner, group);
      } else if (!readTimeout(entry, owner, group.defaults.timeouts) &&
                 !readRunDefault(entry, owner, group.defaults.run)) {
        unknownKey(entry, owner, keysWithDefaults({"devices"}));
      }
    }
  }

  void readMembers(const TomlEntry& entry, const std::string& owner, InventoryGroup& group) {
    const toml::array* list = entry.value->as_array();
    if (list == nullptr) {
      problem(entry.line, owner + "expected a list of device names");
      return;
    }
    std::unordered_set<std::size_t> known;
    for (const toml::node& element : *list) {
      const std::string* text = textOf(element);
      const int line = lineOf(element.source());
      if (text == nullptr) {
        problem(line, owner + "expected a list of device names");
      } else if (!addMembers(*text, line, owner, known, group)) {
        return;
      }
    }
  }

  // Returns false after a problem that would be repeated.
  bool addMembers(const std::string& text, int line, const std::string& owner,
                  std::unordered_set<std::size_t>& known, InventoryGroup& group) {
    const runel::Result<NamePattern> pattern = NamePattern::parse(text);
    if (!pattern) {
      problem(line, owner + pattern.error().text());
      return true;
    }
    members_ += pattern->size();
    if (members_ > kMostMembers) {
      problem(line, "more than " + std::to_string(kMostMembers) + " members of groups");
      return false;
    }
    for (const std::string& name : pattern->names()) {
      const InventoryDevice* device = inventory_.device(name);
      if (device == nullptr) {
        problem(line, owner + "no device '" + name + "'");
        return true;
      }
      const auto place = static_cast<std::size_t>(device - inventory_.devices().data());
      if (known.insert(place).second) {
        group.members.push_back(place);
      }
    }
    return true;
  }

  Inventory& inventory_;
  std::vector<InventoryProblem> problems_;
  std::size_t names_ = 0;    // also of invalid devices, so that the time is limited
  std::size_t members_ = 0;  // of all groups
};

}  // namespace

std::vector<InventoryProblem> parseInventory(std::string_view text, Inventory& inventory) {
  if (const std::optional<int> line = zell::lineOfStrayCharacter(text)) {
    return {{*line, "expected ASCII characters outside of strings and comments"}};
  }
  try {
    return InventoryParser(inventory).parse(toml::parse(text));
  } catch (const toml::parse_error& error) {
    return {{lineOf(error.source()), std::string(error.description())}};
  }
}

bool isInventoryName(std::string_view name) {
  const auto plain = [](char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
           (byte >= 'A' && byte <= 'Z') || byte == '.' || byte == '-' || byte == '_';
  };
  return !name.empty() && name[0] != '-' && std::all_of(name.begin(), name.end(), plain);
}

}  // namespace runelctl
