// SPDX-License-Identifier: Apache-2.0
// runelctl: a master for people and scripts.
#include <exception>
#include <string>
#include <vector>

#include <malloc.h>
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

// Pieces of some MiB come and go. Memory that goes back to the system between them has to be
// filled with zeros for the next one, which takes longer than the copy that it is wanted for.
void keepMemory() {
  constexpr int kKept = 134217728;
  (void)mallopt(M_MMAP_THRESHOLD, kKept / 4);  // the most that it takes
  (void)mallopt(M_TRIM_THRESHOLD, kKept);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    allowManyDescriptors();
    keepMemory();
    zell::ctl::Loop loop;
    zell::ctl::Session session{loop, nullptr, {}, ""};
    return zell::ctl::runCommandLine(session, std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    // Out of memory, or a fault of ours.
    zell::ctl::complain(error.what());
    return zell::ctl::kExitTaskFailed;
  }
}
