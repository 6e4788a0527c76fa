// SPDX-License-Identifier: Apache-2.0
#include "cli/targets.h"

#include <algorithm>
#include <sstream>

#include "client/core/host_text.h"

namespace runelctl {
namespace {

constexpr char kListBlanks[] = " \t\r";

void addOnce(std::vector<runel::Address>& targets, const runel::Address& target) {
  if (std::find(targets.begin(), targets.end(), target) == targets.end()) {
    targets.push_back(target);
  }
}

bool addTarget(const std::string& text, const std::string& name,
               std::vector<runel::Address>& targets, std::string& why) {
  const runel::Result<runel::Address> address = runel::Address::parse(text);
  if (!address) {
    why = address.error().text();
    return false;
  }
  addOnce(targets, name.empty() ? *address : address->named(name));
  return true;
}

bool readLine(const std::string& line, std::vector<runel::Address>& targets, std::string& why) {
  std::istringstream words(line.substr(0, line.find('#')));
  std::string first;
  std::string second;
  std::string third;
  if (!(words >> first)) {
    return true;
  }
  const bool named = static_cast<bool>(words >> second);
  if (words >> third) {
    why = "too many fields: expected DEVICE or NAME DEVICE";
    return false;
  }
  return addTarget(named ? second : first, named ? first : "", targets, why);
}

}  // namespace

bool parseTargetList(const std::string& text, std::vector<runel::Address>& targets,
                     std::string& why) {
  std::istringstream parts(text);
  std::string part;
  bool any = false;
  while (std::getline(parts, part, ',')) {
    part.erase(part.find_last_not_of(kListBlanks) + 1);
    part.erase(0, part.find_first_not_of(kListBlanks));
    if (part.empty()) {
      continue;
    }
    if (!addTarget(part, "", targets, why)) {
      return false;
    }
    any = true;
  }
  why = any ? "" : "empty device list";
  return any;
}

bool readTargets(std::istream& lines, std::vector<runel::Address>& targets, std::string& why) {
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (!readLine(line, targets, why)) {
      why = "line " + std::to_string(number) + ": " + why;
      return false;
    }
  }
  return true;
}

bool parseListen(const std::string& text, std::string& host, std::uint16_t& port) {
  const std::size_t colon = text.find(':');
  const std::string address = text.substr(0, colon);
  if (!address.empty()) {
    host = address;
  }
  return runel::isHostText(host) &&
         (colon == std::string::npos || runel::parsePort(text.substr(colon + 1), port));
}

}  // namespace runelctl
