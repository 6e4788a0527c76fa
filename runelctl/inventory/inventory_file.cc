// SPDX-License-Identifier: Apache-2.0
#include "inventory/inventory_file.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace runelctl {
namespace {

constexpr char kSystemInventory[] = "/etc/runelctl/devices.toml";
constexpr std::size_t kFilePart = 65536;

std::string absoluteVariable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value == '/' ? value : "";
}

// Returns 0 or an errno value. A pipe may be given too.
int readWhole(const std::string& path, std::string& text) {
  const zell::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.valid()) {
    return errno;
  }
  std::string part(kFilePart, '\0');
  while (true) {
    const ssize_t got = read(file.get(), part.data(), part.size());
    if (got == 0) {
      return 0;
    }
    if (got < 0 && errno != EINTR) {
      return errno;
    }
    text.append(part, 0, got > 0 ? static_cast<std::size_t>(got) : 0);
    if (text.size() > kLongestInventory) {
      return EFBIG;
    }
  }
}

}  // namespace

std::vector<std::string> inventoryPlaces() {
  std::vector<std::string> places;
  std::string user = absoluteVariable("XDG_CONFIG_HOME");
  const std::string home = absoluteVariable("HOME");
  if (user.empty() && !home.empty()) {
    user = home + "/.config";
  }
  if (!user.empty()) {
    places.push_back(user + "/runelctl/devices.toml");
  }
  places.emplace_back(kSystemInventory);
  return places;
}

runel::Result<void> InventoryFile::load() {
  const bool given = !path_.empty();
  for (const std::string& place : given ? std::vector<std::string>{path_} : inventoryPlaces()) {
    std::string text;
    const int error = readWhole(place, text);
    if (!given && (error == ENOENT || error == ENOTDIR)) {
      continue;
    }
    if (error != 0) {
      return runel::Error::local(place, error);
    }
    auto inventory = std::make_shared<Inventory>();
    problems_ = parseInventory(text, *inventory);
    inventory_ = std::move(inventory);
    path_ = place;
    return {};
  }
  return {};
}

std::string InventoryFile::text(const InventoryProblem& problem) const {
  return path_ + ":" + std::to_string(problem.line) + ": " + problem.text;
}

std::string noInventoryText() {
  std::string names;
  for (const std::string& place : inventoryPlaces()) {
    names += (names.empty() ? "" : " or ") + place;
  }
  return "no inventory: create " + names;
}

runel::Result<std::shared_ptr<const Inventory>> loadInventory(const std::string& path) {
  InventoryFile file(path);
  const runel::Result<void> loaded = file.load();
  if (!loaded) {
    return loaded.error();
  }
  if (!file.problems().empty()) {
    const std::size_t more = file.problems().size() - 1;
    return runel::Error(
        runel::Kind::local, runel::Cause::other,
        file.text(file.problems().front()) +
            (more == 0 ? "" : " (" + std::to_string(more) + " more: runelctl inventory check)"));
  }
  return file.inventory();
}

}  // namespace runelctl
