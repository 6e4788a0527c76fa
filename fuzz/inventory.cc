// SPDX-License-Identifier: Apache-2.0
// Lists of devices, compared with a model of their rules, and inventory files, whose devices must
// be consistent. An even first byte selects a list, an odd one a file.
#include <regex.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fuzz.h"
#include "inventory/inventory.h"
#include "inventory/name_pattern.h"
#include "inventory/parse_inventory.h"
#include "inventory/selector.h"

namespace {

using runelctl::Inventory;
using zell::fuzz::require;
using Names = std::vector<std::string>;

// The ends of "01-03" or of "7". With regexec(3), because std::regex takes seconds to compile.
std::optional<std::pair<std::string, std::string>> rangeOf(const std::string& element) {
  static const regex_t kRange = [] {
    regex_t range;
    require(regcomp(&range, "^[ \t\r]*([0-9]{1,9})(-([0-9]{1,9}))?[ \t\r]*$", REG_EXTENDED) == 0);
    return range;
  }();
  regmatch_t found[4] = {{0, static_cast<regoff_t>(element.size())}};
  if (regexec(&kRange, element.data(), 4, found, REG_STARTEND) != 0) {
    return std::nullopt;
  }
  const auto text = [&](const regmatch_t& part) {
    return element.substr(static_cast<std::size_t>(part.rm_so),
                          static_cast<std::size_t>(part.rm_eo - part.rm_so));
  };
  return std::make_pair(text(found[1]), text(found[3].rm_so < 0 ? found[1] : found[3]));
}

// The numbers of "01-03,7", by the rules.
std::optional<Names> numbersOf(const std::string& text) {
  Names numbers;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const auto range = rangeOf(text.substr(begin, end - begin));
    if (!range) {
      return std::nullopt;
    }
    const auto& [first, last] = *range;
    const unsigned long least = std::stoul(first);
    const unsigned long most = std::stoul(last);
    if (most < least || last.size() < first.size() || most - least > runelctl::kMostNames ||
        numbers.size() > runelctl::kMostNames) {
      return std::nullopt;
    }
    for (unsigned long number = least; number <= most; ++number) {
      std::string digits = std::to_string(number);
      while (first[0] == '0' && digits.size() < first.size()) {
        digits.insert(0, 1, '0');
      }
      numbers.push_back(digits);
    }
    begin = end + 1;
  }
  return numbers;
}

// The names of a pattern without commas outside of brackets, by the rules.
std::optional<Names> namesOf(const std::string& pattern) {
  const std::size_t open = pattern.find('[');
  const std::size_t close = pattern.find(']');
  if (open == std::string::npos && close == std::string::npos) {
    return Names{pattern};
  }
  if (open == std::string::npos || close == std::string::npos || close < open) {
    return std::nullopt;
  }
  const auto numbers = numbersOf(pattern.substr(open + 1, close - open - 1));
  const auto rests = namesOf(pattern.substr(close + 1));
  if (!numbers || !rests || numbers->size() * rests->size() > runelctl::kMostNames) {
    return std::nullopt;
  }
  Names names;
  for (const std::string& number : *numbers) {
    for (const std::string& rest : *rests) {
      names.push_back(pattern.substr(0, open) + number + rest);
    }
  }
  return names;
}

void tryList(const std::string& list) {
  Names expected;
  bool valid = true;
  for (const std::string& element : runelctl::splitList(list)) {
    const auto names = namesOf(element);
    const auto pattern = runelctl::NamePattern::parse(element);
    // The model has no limit for the number of brackets.
    require(!pattern || (names && pattern->names() == *names));
    valid = valid && pattern;
    if (pattern) {
      require(pattern->size() == names->size());
      expected.insert(expected.end(), names->begin(), names->end());
    }
  }
  const auto all = runelctl::expandList(list);
  const bool fits = !expected.empty() && expected.size() <= runelctl::kMostNames;
  require(all.ok() == (valid && fits));
  require(!all || *all == expected);
}

void checkGroups(const Inventory& inventory) {
  for (const auto& group : inventory.groups()) {
    require(inventory.group(group.name) == &group && runelctl::isInventoryName(group.name));
    const std::set<std::size_t> members(group.members.begin(), group.members.end());
    require(members.size() == group.members.size());
    require(members.empty() || *members.rbegin() < inventory.devices().size());
  }
}

void tryFile(const std::string& text) {
  const auto inventory = std::make_shared<Inventory>();
  int line = 0;
  const auto problems = runelctl::parseInventory(text, *inventory);
  for (const auto& problem : problems) {
    require(problem.line >= line && !problem.text.empty());
    line = problem.line;
  }
  std::set<std::string> addresses;
  for (const auto& device : inventory->devices()) {
    require(inventory->device(device.name) == &device && runelctl::isInventoryName(device.name));
    require(inventory->device(device.address) == &device);
    require(addresses.insert(runelctl::addressKey(device.address)).second);
  }
  if (!problems.empty()) {
    return;
  }
  checkGroups(*inventory);
  runelctl::Selector selector(inventory, [] { return Names(); });
  require(selector.addAll().ok() && selector.selected().size() == inventory->devices().size());
  for (const auto& device : inventory->devices()) {
    require(selector.addList(device.name).ok());
  }
  require(selector.selected().size() == inventory->devices().size());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [choice, input] = zell::fuzz::firstByteChooses(data, size);
  if (choice % 2 == 0) {
    tryList(input);
  } else {
    tryFile(input);
  }
  return 0;
}
