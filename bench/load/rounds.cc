// SPDX-License-Identifier: Apache-2.0
// Small requests and their replies.
#include <cstdio>
#include <deque>
#include <vector>

#include "loads.h"
#include "meter.h"

namespace zell::bench {
namespace {

// One connection with outstanding requests.
class Client {
 public:
  Client(UniqueFd socket, const std::string& request, std::size_t replySize)
      : socket_(std::move(socket)), request_(request), replySize_(replySize) {}

  void send(std::size_t requests) {
    batch_.clear();
    for (std::size_t i = 0; i < requests; ++i) {
      batch_ += request_;
    }
    sent_.insert(sent_.end(), requests, now());
    sendAll(socket_.get(), batch_);
  }

  /// Waits for replies and stores the duration of each. Returns the number of replies.
  std::size_t receive(std::vector<std::uint64_t>& times) {
    char buffer[65536];
    have_ += receiveSome(socket_.get(), buffer, sizeof buffer);
    const std::size_t replies = have_ / replySize_;
    have_ %= replySize_;
    const std::uint64_t time = now();
    for (std::size_t i = 0; i < replies; ++i) {
      times.push_back(time - sent_.front());
      sent_.pop_front();
    }
    return replies;
  }

  [[nodiscard]] bool quiet() const { return sent_.empty(); }

 private:
  UniqueFd socket_;
  const std::string& request_;
  std::size_t replySize_;
  std::size_t have_ = 0;  // bytes received of the next reply
  std::string batch_;
  std::deque<std::uint64_t> sent_;
};

// Uses the connections in turn until @p count replies have arrived.
std::vector<std::uint64_t> exchange(std::vector<Client>& clients, std::size_t depth,
                                    std::size_t count) {
  std::vector<std::uint64_t> times;
  times.reserve(count + depth * clients.size());
  for (Client& client : clients) {
    client.send(depth);
  }
  while (times.size() + depth * clients.size() < count) {
    for (Client& client : clients) {
      const std::size_t replies = client.receive(times);
      if (replies > 0) {
        client.send(replies);
      }
    }
  }
  for (Client& client : clients) {
    while (!client.quiet()) {
      (void)client.receive(times);
    }
  }
  return times;
}

// The size of a reply to @p request: from the option, or measured with the first frame received.
std::size_t replySizeOf(const Options& options, const UniqueFd& master,
                        const std::string& request) {
  if (options.has("--reply")) {
    return options.number("--reply");
  }
  sendAll(master.get(), request);
  return receiveReply(master.get());
}

// Connections that have been served once and then stay silent.
std::vector<UniqueFd> openIdle(const Options& options, const std::string& request,
                               std::size_t replySize) {
  std::vector<UniqueFd> idle(options.number("--idle", 0));
  for (UniqueFd& socket : idle) {
    socket = connectTo(options.port("--port"));
    sendAll(socket.get(), request);
    receive(socket.get(), replySize);
  }
  return idle;
}

void print(std::vector<std::uint64_t>& times, std::uint64_t elapsed, std::uint64_t processor) {
  const auto count = static_cast<double>(times.size());
  std::printf(
      "{\"p50_us\": %.3f, \"p99_us\": %.3f, \"rate\": %.1f, \"cpu_us\": %.3f, \"count\": %zu}\n",
      static_cast<double>(percentile(times, 0.5)) / 1e3,
      static_cast<double>(percentile(times, 0.99)) / 1e3,
      count * 1e9 / static_cast<double>(elapsed), static_cast<double>(processor) / 1e3 / count,
      times.size());
}

}  // namespace

void runRounds(const Options& options) {
  const Meter meter(static_cast<pid_t>(options.number("--pid")));
  const std::string request = contentOf(options.text("--request"));
  const std::size_t count = options.number("--count");
  const std::size_t depth = options.number("--depth", 1);
  UniqueFd master;
  if (options.has("--master")) {
    master = acceptFrom(listenOn(options.port("--master")));
  }
  const std::size_t replySize = replySizeOf(options, master, request);
  const std::vector<UniqueFd> idle = openIdle(options, request, replySize);
  std::vector<Client> clients;
  if (options.has("--port")) {
    for (std::size_t i = 0; i < options.number("--connections", 1); ++i) {
      clients.emplace_back(connectTo(options.port("--port")), request, replySize);
    }
  } else {
    clients.emplace_back(std::move(master), request, replySize);
  }
  (void)exchange(clients, depth, count / 10);  // warm-up
  const std::uint64_t processor = meter.processorTime();
  const std::uint64_t begin = now();
  std::vector<std::uint64_t> times = exchange(clients, depth, count);
  const std::uint64_t elapsed = now() - begin;
  print(times, elapsed, meter.processorTime() - processor);
}

}  // namespace zell::bench
