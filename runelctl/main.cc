// SPDX-License-Identifier: Apache-2.0
// runelctl: the command-line master.
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <runel/request.h>

#include "cli/command_line.h"
#include "cli/run.h"

namespace {

// A thousand devices are a normal case, and each needs a descriptor.
void allowManyDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);  // on failure, fewer devices run in parallel
  }
}

// Buffers of several MiB are allocated and freed all the time. Memory that is returned to the
// system is zeroed before it is used again, which takes longer than copying the data.
void keepMemory() {
  constexpr int kKept = 134217728;
  (void)mallopt(M_MMAP_THRESHOLD, kKept / 4);  // the largest accepted value
  (void)mallopt(M_TRIM_THRESHOLD, kKept);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    allowManyDescriptors();
    keepMemory();
    runel::Loop loop;
    loop.setResolver(runel::blockingResolver());
    runelctl::Session session{loop, nullptr, {}};
    return runelctl::runCommandLine(session, std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::bad_alloc&) {
    constexpr std::string_view kText = "runelctl: out of memory\n";
    (void)write(STDERR_FILENO, kText.data(), kText.size());  // needs no memory
    return runelctl::kExitTaskFailed;
  } catch (const std::exception& error) {  // a defect
    runelctl::complain(error.what());
    return runelctl::kExitTaskFailed;
  }
}
