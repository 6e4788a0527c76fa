// SPDX-License-Identifier: Apache-2.0
#include "commands/settings.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include <runel/records.h>

#include "client/core/paths.h"

namespace runelctl {
namespace {

constexpr std::size_t kLeastShare = 2097152;
constexpr std::size_t kMostShare = 67108864;

runel::Milliseconds fromSeconds(double seconds) {
  return runel::Milliseconds(static_cast<runel::Milliseconds::rep>(std::lround(seconds * 1000)));
}

bool isDirectory(const std::string& path) {
  struct stat about {};
  return stat(path.c_str(), &about) == 0 && S_ISDIR(about.st_mode);
}

// A directory in which only this user can create a socket. The master creates the one in /tmp if
// necessary and checks its owner.
std::string runtimeDirectory() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime == '/') {
    return runtime;
  }
  const std::string user = std::to_string(geteuid());
  const std::string directory = "/run/user/" + user;
  return isDirectory(directory) ? directory : "/tmp/runelctl-" + user;
}

}  // namespace

runel::DeviceOptions Settings::limits() const {
  runel::DeviceOptions options;
  options.setConnectTimeout(fromSeconds(connectTimeout))
      .setIoTimeout(fromSeconds(ioTimeout))
      .setMasterSocket(masterSocket);
  runel::DeviceSpool::set(options, spool);
  runel::DeviceDialer::set(options, gateway);
  return options;
}

// A quarter remains for the program itself, and for the output that is being printed.
void Settings::openSpool() {
  spool = std::make_shared<runel::Spool>(static_cast<std::size_t>(memory / 4 * 3));
}

runel::DeviceOptions Settings::limits(const runel::Address& target) const {
  const Timeouts own = ownTimeouts(target);
  runel::DeviceOptions options = limits();
  options.setConnectTimeout(fromSeconds(own.connect.value_or(connectTimeout)))
      .setIoTimeout(fromSeconds(own.io.value_or(ioTimeout)));
  return options;
}

Timeouts Settings::ownTimeouts(const runel::Address& target) const {
  const auto found = timeouts.find(target.text());
  return found == timeouts.end() ? Timeouts() : found->second;
}

std::size_t Settings::memoryShare() const {
  const std::size_t parallel = std::min(targets.size(), static_cast<std::size_t>(jobs));
  const auto half = static_cast<std::size_t>(memory / 2);
  return std::clamp(half / std::max<std::size_t>(parallel, 1), kLeastShare, kMostShare);
}

std::string Settings::remote(const std::string& path) const {
  return runel::joinPath(directory, path);
}

std::string defaultMasterSocket() {
  const char* chosen = std::getenv("RUNELCTL_SOCKET");
  if (chosen != nullptr && *chosen != '\0') {
    return chosen;
  }
  return runtimeDirectory() + "/runelctl-master.sock";
}

}  // namespace runelctl
