// SPDX-License-Identifier: Apache-2.0
// runelctl: a master for people and scripts.
#include <exception>
#include <string>
#include <vector>

#include <sys/resource.h>

#include "app/command_line.h"
#include "app/run.h"
#include "client/request.h"

namespace {

// A thousand devices are an ordinary case, and each takes a descriptor.
void allowManyDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);  // then fewer at a time will do
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    allowManyDescriptors();
    zell::ctl::Loop loop;
    zell::ctl::Session session{loop, nullptr, {}, ""};
    return zell::ctl::runCommandLine(session, std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    // Out of memory, or a fault of ours.
    zell::ctl::complain(error.what());
    return zell::ctl::kExitTaskFailed;
  }
}
