// SPDX-License-Identifier: Apache-2.0
// Measures the start of a server, and an idle server.
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "loads.h"
#include "meter.h"

namespace zell::bench {
namespace {

constexpr int kSettleMilliseconds = 500;

}  // namespace

void runStart(const Options& options) {
  const std::string& program = options.text("--command");
  char* const argv[] = {const_cast<char*>(program.c_str()), nullptr};
  // The server keeps its standard streams, and ours may be a pipe whose reader waits for its end.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const std::uint64_t begin = now();
  pid_t pid = 0;
  if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, environ) != 0) {
    fail("cannot start " + program);
  }
  const UniqueFd client = connectTo(options.port("--port"));
  const std::uint64_t elapsed = now() - begin;
  (void)waitpid(pid, nullptr, 0);  // the server continues in the background
  std::printf("{\"start_ms\": %.3f}\n", static_cast<double>(elapsed) / 1e6);
}

void runIdle(const Options& options) {
  const Meter meter(static_cast<pid_t>(options.number("--pid")));
  const UniqueFd master = acceptFrom(listenOn(options.port("--master")));
  (void)poll(nullptr, 0, kSettleMilliseconds);
  const std::uint64_t processor = meter.processorTime();
  const std::uint64_t sleeps = meter.sleeps();
  const std::uint64_t begin = now();
  (void)poll(nullptr, 0, static_cast<int>(options.number("--milliseconds")));
  const double elapsed = static_cast<double>(now() - begin);
  std::printf("{\"wakeups\": %.2f, \"cpu_percent\": %.4f, \"resident\": %llu}\n",
              static_cast<double>(meter.sleeps() - sleeps) * 1e9 / elapsed,
              static_cast<double>(meter.processorTime() - processor) * 100 / elapsed,
              static_cast<unsigned long long>(meter.resident()));
}

}  // namespace zell::bench
