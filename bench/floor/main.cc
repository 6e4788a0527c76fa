// SPDX-License-Identifier: Apache-2.0
// bench_floor tasks|relay LISTEN_PORT MASTER_PORT
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "relay.h"
#include "tasks.h"

int main(int argc, char* argv[]) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: bench_floor tasks|relay LISTEN_PORT MASTER_PORT\n");
    return 2;
  }
  (void)std::signal(SIGPIPE, SIG_IGN);
  const int port = std::atoi(argv[2]);
  const int master = std::atoi(argv[3]);
  if (std::strcmp(argv[1], "relay") == 0) {
    return zell::bench::RelayFloor(master).run(port);
  }
  return zell::bench::TaskFloor(master).run(port);
}
