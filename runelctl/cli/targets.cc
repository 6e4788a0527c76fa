// SPDX-License-Identifier: Apache-2.0
#include "cli/targets.h"

#include <cerrno>
#include <sstream>
#include <unordered_set>

#include <fcntl.h>

#include "base/durable_rename.h"
#include "base/unique_fd.h"
#include "client/core/host_text.h"
#include "client/core/paths.h"
#include "inventory/selector.h"
#include "output/style.h"

namespace runelctl {
namespace {

constexpr mode_t kNewFileMode = 0666;

std::string lineText(int number) {
  return "line " + std::to_string(number) + ": ";
}

bool readLine(const std::string& line, int number, std::vector<TargetLine>& targets,
              std::string& why) {
  std::istringstream words(line.substr(0, line.find('#')));
  std::string first;
  std::string second;
  std::string third;
  if (!(words >> first)) {
    return true;
  }
  const bool named = static_cast<bool>(words >> second);
  if (words >> third) {
    why = lineText(number) + "too many fields: expected DEVICE or NAME DEVICE";
    return false;
  }
  targets.push_back({number, named ? first : "", named ? second : first});
  return true;
}

// HOST[:PORT] without the default port, or @NAME.
std::string shortText(const runel::Address& target) {
  return target.isBehindMaster() ? target.text()
                                 : runel::Address(target.host(), target.port()).name();
}

}  // namespace

bool readTargetLines(std::istream& lines, std::vector<TargetLine>& targets, std::string& why) {
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (!readLine(line, number, targets, why)) {
      return false;
    }
  }
  return true;
}

bool readTargets(std::istream& lines, std::vector<runel::Address>& targets, std::string& why) {
  std::vector<TargetLine> found;
  if (!readTargetLines(lines, found, why)) {
    return false;
  }
  std::unordered_set<std::string> known;
  for (const TargetLine& line : found) {
    const runel::Result<runel::Address> address = parseAddress(line.device);
    if (!address) {
      why = lineText(line.number) + address.error().text();
      return false;
    }
    if (known.insert(addressKey(*address)).second) {
      targets.push_back(line.name.empty() ? *address : address->named(line.name));
    }
  }
  return true;
}

int writeTargets(const std::string& path, const std::vector<runel::Address>& targets) {
  std::string text;
  for (const runel::Address& target : targets) {
    const std::string where = shortText(target);
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
