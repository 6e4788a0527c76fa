// SPDX-License-Identifier: Apache-2.0
// Measures one large request or reply, and the memory that the server needs for it.
#include <cstdio>

#include <poll.h>

#include "loads.h"
#include "meter.h"

namespace zell::bench {
namespace {

// Freed memory returns to the system at once. The delay covers the server's work after the reply.
constexpr int kSettleMilliseconds = 250;

}  // namespace

void runTransfer(const Options& options) {
  const Meter meter(static_cast<pid_t>(options.number("--pid")));
  const std::string request = contentOf(options.text("--request"));
  const UniqueFd master = acceptFrom(listenOn(options.port("--master")));
  (void)poll(nullptr, 0, kSettleMilliseconds);
  const std::uint64_t before = meter.resident();
  meter.forgetPeak();
  const std::uint64_t processor = meter.processorTime();
  const std::uint64_t begin = now();
  sendAll(master.get(), request);
  const std::size_t reply = receiveReply(master.get());
  const std::uint64_t elapsed = now() - begin;
  const std::uint64_t used = meter.processorTime() - processor;
  const std::uint64_t peak = meter.peak();
  (void)poll(nullptr, 0, kSettleMilliseconds);
  std::printf(
      "{\"seconds\": %.6f, \"cpu_s\": %.6f, \"request\": %zu, \"reply\": %zu, \"peak\": %llu, "
      "\"before\": %llu, \"after\": %llu}\n",
      static_cast<double>(elapsed) / 1e9, static_cast<double>(used) / 1e9, request.size(), reply,
      static_cast<unsigned long long>(peak), static_cast<unsigned long long>(before),
      static_cast<unsigned long long>(meter.resident()));
}

}  // namespace zell::bench
