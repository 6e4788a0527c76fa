// SPDX-License-Identifier: Apache-2.0
// Loads that enter on one connection and leave on another: clauses, and messages of a broker.
#include <cerrno>
#include <cstdio>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

#include "loads.h"
#include "meter.h"

namespace zell::bench {
namespace {

constexpr char kHello[] = "<hello/>";
constexpr std::size_t kHelloOut = sizeof kHello - 1 + 2;  // the relay appends CR LF
constexpr int kTimeout = 60000;

// The resources that the server used since construction.
class Stopwatch {
 public:
  explicit Stopwatch(const Meter& meter)
      : meter_(meter), processor_(meter.processorTime()), begin_(now()) {}

  void print(std::size_t bytes, std::size_t pieces) const {
    const double elapsed = static_cast<double>(now() - begin_) / 1e9;
    const double used = static_cast<double>(meter_.processorTime() - processor_) / 1e9;
    std::printf("{\"seconds\": %.6f, \"cpu_s\": %.6f, \"bytes\": %zu, \"rate\": %.1f}\n", elapsed,
                used, bytes, static_cast<double>(pieces) / elapsed);
  }

 private:
  const Meter& meter_;
  std::uint64_t processor_;
  std::uint64_t begin_;
};

// Sends @p bytes @p repeat times on @p out while it receives @p expected bytes on @p in.
void pump(int out, std::string_view bytes, std::size_t repeat, int in, std::size_t expected) {
  std::vector<char> buffer(256 * 1024);
  std::string_view rest = bytes;
  while (expected > 0) {
    pollfd set[] = {{in, POLLIN, 0}, {repeat > 0 ? out : -1, POLLOUT, 0}};
    if (poll(set, 2, kTimeout) <= 0) {
      fail("no data before the timeout");
    }
    if (set[1].revents != 0) {
      const ssize_t sent = send(out, rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno != EAGAIN) {
        fail("send");
      }
      rest.remove_prefix(static_cast<std::size_t>(sent > 0 ? sent : 0));
      if (rest.empty()) {
        rest = bytes;
        --repeat;
      }
    }
    if (set[0].revents != 0) {
      const std::size_t got = receiveSome(in, buffer.data(), buffer.size());
      if (got > expected) {
        errno = 0;
        fail("more data than expected");
      }
      expected -= got;
    }
  }
}

void relayBacklog(const Options& options, const Meter& meter, const std::string& clauses,
                  std::size_t expected) {
  const int master = options.port("--master");
  const UniqueFd slave = acceptFrom(listenOn(master));
  const int port = options.port("--port");
  const UniqueFd agent = connectTo(port);
  sendAll(agent.get(), kHello);
  sendAll(agent.get(), clauses);
  waitUntilRead(agent.get(), port);
  const Stopwatch watch(meter);
  const UniqueFd bridge = acceptFrom(listenOn(master));
  receive(bridge.get(), kHelloOut + expected);
  watch.print(expected, options.number("--pieces"));
}

}  // namespace

void runRelay(const Options& options) {
  const Meter meter(static_cast<pid_t>(options.number("--pid")));
  const std::string clauses = contentOf(options.text("--clauses"));
  const std::size_t expected = options.number("--reply");
  if (options.number("--backlog", 0) != 0) {
    relayBacklog(options, meter, clauses, expected);
    return;
  }
  const UniqueFd listener = listenOn(options.port("--master"));
  const UniqueFd slave = acceptFrom(listener);
  const UniqueFd agent = connectTo(options.port("--port"));
  sendAll(agent.get(), kHello);
  const UniqueFd bridge = acceptFrom(listener);
  receive(bridge.get(), kHelloOut);
  const Stopwatch watch(meter);
  const std::size_t repeat = options.number("--repeat", 1);
  pump(agent.get(), clauses, repeat, bridge.get(), expected * repeat);
  watch.print(expected * repeat, options.number("--pieces") * repeat);
}

void runBroker(const Options& options) {
  const Meter meter(static_cast<pid_t>(options.number("--pid")));
  const std::string messages = contentOf(options.text("--clauses"));
  const int port = options.port("--port");
  const UniqueFd receiver = connectTo(port);
  sendAll(receiver.get(), contentOf(options.text("--receiver")));
  receive(receiver.get(), options.number("--receiver-welcome"));
  const UniqueFd sender = connectTo(port);
  sendAll(sender.get(), contentOf(options.text("--sender")));
  receive(sender.get(), options.number("--sender-welcome"));
  const Stopwatch watch(meter);
  const std::size_t repeat = options.number("--repeat", 1);
  pump(sender.get(), messages, repeat, receiver.get(), options.number("--reply") * repeat);
  watch.print(options.number("--reply") * repeat, options.number("--pieces") * repeat);
}

}  // namespace zell::bench
