// SPDX-License-Identifier: Apache-2.0
#include "cli/targets.h"

#include <algorithm>
#include <cerrno>
#include <sstream>

#include <fcntl.h>

#include "base/durable_rename.h"
#include "base/unique_fd.h"
#include "client/core/host_text.h"
#include "client/core/paths.h"
#include "output/style.h"

namespace runelctl {
namespace {

constexpr mode_t kNewFileMode = 0666;
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

int writeTargets(const std::string& path, const std::vector<runel::Address>& targets) {
  std::string text;
  for (const runel::Address& target : targets) {
    const std::string where = target.text();
    text += (target.name() == where ? "" : target.name() + " ") + where + "\n";
  }
  const zell::UniqueFd directory(
      open(runel::directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) {
    return errno;
  }
  const std::string fresh = path + ".new";
  zell::UniqueFd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kNewFileMode));
  if (!file.valid() || !writeAll(file.get(), text)) {
    return errno;
  }
  return zell::renameDurably(file, directory.get(), runel::baseName(fresh), runel::baseName(path))
      .error;
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
