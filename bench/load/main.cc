// SPDX-License-Identifier: Apache-2.0
// bench_load rounds|transfer|relay|broker|idle|start OPTIONS: see loads.h.
#include <cstring>

#include <sys/resource.h>

#include "loads.h"

namespace {

constexpr struct {
  const char* name;
  void (*run)(const zell::bench::Options& options);
} kLoads[] = {
    {"rounds", zell::bench::runRounds}, {"transfer", zell::bench::runTransfer},
    {"relay", zell::bench::runRelay},   {"broker", zell::bench::runBroker},
    {"idle", zell::bench::runIdle},     {"start", zell::bench::runStart},
};

// A load may open as many connections as the server supports.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  raiseDescriptorLimit();
  for (const auto& load : kLoads) {
    if (argc > 1 && std::strcmp(argv[1], load.name) == 0) {
      load.run(zell::bench::Options(argc - 2, argv + 2));
      return 0;
    }
  }
  zell::bench::fail("missing or unknown load");
}
