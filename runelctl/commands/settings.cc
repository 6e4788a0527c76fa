// SPDX-License-Identifier: Apache-2.0
#include "commands/settings.h"

#include <cmath>
#include <cstdlib>

#include <unistd.h>

#include "client/records.h"

namespace zell::ctl {
namespace {

Milliseconds fromSeconds(double seconds) {
  return Milliseconds(static_cast<Milliseconds::rep>(std::lround(seconds * 1000)));
}

}  // namespace

Limits Settings::limits() const {
  return {fromSeconds(connectTimeout), fromSeconds(timeout), masterSocket};
}

std::string Settings::remote(const std::string& path) const {
  return joinPath(folder, path);
}

std::string defaultMasterSocket() {
  const char* chosen = std::getenv("RUNELCTL_SOCKET");
  if (chosen != nullptr && *chosen != '\0') {
    return chosen;
  }
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  std::string folder = runtime != nullptr && *runtime == '/' ? runtime : "";
  if (folder.empty()) {
    folder = geteuid() == 0 ? "/run" : "/run/user/" + std::to_string(geteuid());
  }
  return folder + "/runelctl-master.sock";
}

}  // namespace zell::ctl
