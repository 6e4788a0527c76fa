// SPDX-License-Identifier: Apache-2.0
// Devices within a program's own poll() loop: reads paths from standard input, and prints the
// content of these files of a device. The loop serves both descriptors.
//
//   poll_loop ADDRESS
#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>

#include <poll.h>
#include <unistd.h>

#include <runel/runel.h>

namespace {

// The timeout for poll(), rounded up: -1 without a deadline.
int timeoutOf(const runel::Loop& loop) {
  const auto deadline = loop.deadline();
  if (!deadline) {
    return -1;
  }
  const auto left = std::chrono::ceil<runel::Milliseconds>(*deadline - runel::Clock::now());
  return static_cast<int>(std::clamp<long long>(left.count(), 0, 60000));
}

void show(const std::string& path, const runel::Reply& reply) {
  std::cout << path << ": " << (reply.ok() ? reply.output() : reply.error().text() + "\n");
}

}  // namespace

int main(int argc, char** argv) {
  const auto address = runel::Address::parse(argc == 2 ? argv[1] : "");
  if (!address) {
    std::cerr << "usage: poll_loop ADDRESS\n" << address.error().text() << "\n";
    return 2;
  }
  runel::Loop loop;
  runel::AsyncDevice device(loop, *address);
  pollfd sources[] = {{loop.descriptor(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  std::string lines;
  while (sources[1].fd >= 0 || device.pending() > 0) {
    (void)poll(sources, 2, timeoutOf(loop));
    loop.step();  // does nothing when nothing is pending
    char part[4096];
    const ssize_t got = sources[1].revents != 0 ? read(STDIN_FILENO, part, sizeof part) : -1;
    if (got == 0) {
      sources[1].fd = -1;  // poll() ignores it
    }
    lines.append(part, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    for (std::size_t end; (end = lines.find('\n')) != std::string::npos; lines.erase(0, end + 1)) {
      const std::string path = lines.substr(0, end);
      device.ask(runel::Request({"read", path}), [path](const auto& reply) { show(path, reply); });
    }
  }
}
