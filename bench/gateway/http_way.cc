// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/epoll.h>

#include "ways.h"
#include "wire.h"

namespace runel::bench {
namespace {

constexpr char kBody[] = R"({"task":"fileexists","arguments":["/"]})";

class HttpWay : public Way {
 public:
  HttpWay(Loop& loop, Target target) : loop_(loop), target_(std::move(target)) {}
  ~HttpWay() override {
    for (const auto& one : connections_) {
      loop_.forget(one->wire.descriptor());
    }
  }

  void open(std::function<void()> ready, Answered answered) override {
    answered_ = std::move(answered);
    for (std::size_t i = 0; i < target_.connections; ++i) {
      connections_.push_back(std::make_unique<Connection>(target_));
      Connection& one = *connections_.back();
      idle_.push_back(&one);
      if (!loop_.watch(one.wire.descriptor(), EPOLLIN,
                       [this, &one](std::uint32_t) { read(one); })) {
        fail("too many connections");
      }
    }
    loop_.next(std::move(ready));
  }

  void ask(std::size_t device) override {
    waiting_.push_back(device);
    sendSome();
  }

 private:
  struct Connection {
    explicit Connection(const Target& target) : wire(target.address, target.tls) {}
    Wire wire;
    std::string in;
    std::size_t device = 0;
  };

  void sendSome() {
    while (!waiting_.empty() && !idle_.empty()) {
      Connection& one = *idle_.back();
      idle_.pop_back();
      one.device = waiting_.front();
      waiting_.pop_front();
      one.wire.send("POST /v1/devices/" + nameOf(target_, one.device) +
                    "/tasks HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " + target_.token +
                    "\r\nContent-Type: application/json\r\nContent-Length: " +
                    std::to_string(sizeof kBody - 1) + "\r\n\r\n" + kBody);
    }
  }

  void read(Connection& one) {
    one.wire.receive(one.in);
    const std::size_t end = one.in.find("\r\n\r\n");
    if (end == std::string::npos) {
      return;
    }
    constexpr std::string_view kLength = "Content-Length: ";
    const std::size_t length = one.in.find(kLength);
    if (length == std::string::npos || length > end) {
      fail("an answer without a length: " + one.in.substr(0, end));
    }
    const std::size_t body = std::strtoul(one.in.c_str() + length + kLength.size(), nullptr, 10);
    if (one.in.size() < end + 4 + body) {
      return;
    }
    const bool good = one.in.compare(0, 13, "HTTP/1.1 200 ") == 0 &&
                      one.in.find(R"("outcome":"answered")", end) != std::string::npos &&
                      one.in.find(R"("status":"success")", end) != std::string::npos;
    tellFirst(good, one.in);
    one.in.erase(0, end + 4 + body);
    idle_.push_back(&one);
    answered_(one.device, good);
    sendSome();
  }

  // One example is enough.
  void tellFirst(bool good, const std::string& answer) {
    if (!good && !told_) {
      told_ = true;
      (void)std::fprintf(stderr, "bench_gateway: an answer: %s\n", answer.c_str());
    }
  }

  Loop& loop_;
  const Target target_;
  Answered answered_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::vector<Connection*> idle_;
  std::deque<std::size_t> waiting_;
  bool told_ = false;
};

}  // namespace

std::unique_ptr<Way> httpWay(Loop& loop, const Target& target) {
  return std::make_unique<HttpWay>(loop, target);
}

}  // namespace runel::bench
