// SPDX-License-Identifier: Apache-2.0
#include <runel/loop.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <map>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <sys/epoll.h>

#include "base/unique_fd.h"

namespace runel {
inline namespace v1 {
namespace {

constexpr int kEventsAtOnce = 64;
constexpr Milliseconds kLongest{60000};

epoll_event eventFor(int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return event;
}

}  // namespace

struct Loop::Data {
  [[nodiscard]] int waitTime(Milliseconds limit) const;
  void runCalls();
  void runTimers();

  zell::UniqueFd epoll{epoll_create1(EPOLL_CLOEXEC)};
  [[nodiscard]] std::shared_ptr<Ready>* handlerOf(int fd);

  // By descriptor. Shared, so that a handler that removes itself lives until it returns.
  std::vector<std::shared_ptr<Ready>> watched;
  std::map<Timer, Call> timers;
  std::vector<Call> calls;
  std::uint64_t lastTimer = 0;
  bool stopped = false;
  Resolver resolver;
};

Loop::Loop() : data_(std::make_unique<Data>()) {}

Loop::~Loop() = default;

bool Loop::watch(int fd, std::uint32_t events, Ready ready) {
  epoll_event event = eventFor(fd, events);
  if (epoll_ctl(data_->epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0 &&
      (errno != EEXIST || epoll_ctl(data_->epoll.get(), EPOLL_CTL_MOD, fd, &event) != 0)) {
    return false;
  }
  const auto place = static_cast<std::size_t>(fd);
  if (data_->watched.size() <= place) {
    data_->watched.resize(place + 1);
  }
  data_->watched[place] = std::make_shared<Ready>(std::move(ready));
  return true;
}

void Loop::change(int fd, std::uint32_t events) {
  epoll_event event = eventFor(fd, events);
  (void)epoll_ctl(data_->epoll.get(), EPOLL_CTL_MOD, fd, &event);  // fd is watched
}

void Loop::forget(int fd) {
  std::shared_ptr<Ready>* const handler = data_->handlerOf(fd);
  if (handler != nullptr) {
    // Its objects may call the loop when they are destroyed.
    const std::shared_ptr<Ready> gone = std::move(*handler);
    (void)epoll_ctl(data_->epoll.get(), EPOLL_CTL_DEL, fd, nullptr);  // fd is watched
  }
}

Timer Loop::after(Milliseconds delay, Call call) {
  const Timer timer{Clock::now() + delay, ++data_->lastTimer};
  data_->timers.emplace(timer, std::move(call));
  return timer;
}

void Loop::cancel(Timer& timer) {
  data_->timers.erase(timer);
  timer = Timer();
}

void Loop::next(Call call) {
  data_->calls.push_back(std::move(call));
}

void Loop::run() {
  data_->stopped = false;
  while (!data_->stopped) {
    turn(kLongest);
  }
}

void Loop::stop() {
  data_->stopped = true;
}

// Null for a descriptor that is not watched.
std::shared_ptr<Loop::Ready>* Loop::Data::handlerOf(int fd) {
  const auto place = static_cast<std::size_t>(fd);
  const bool known = fd >= 0 && place < watched.size() && watched[place];
  return known ? &watched[place] : nullptr;
}

int Loop::Data::waitTime(Milliseconds limit) const {
  if (!calls.empty()) {
    return 0;
  }
  if (!timers.empty()) {
    const auto left = timers.begin()->first.due - Clock::now();
    limit = std::min(limit, std::chrono::ceil<Milliseconds>(left));
  }
  return static_cast<int>(std::clamp(limit, Milliseconds(0), kLongest).count());
}

void Loop::turn(Milliseconds limit) {
  epoll_event events[kEventsAtOnce];
  const int ready = epoll_wait(data_->epoll.get(), events, kEventsAtOnce, data_->waitTime(limit));
  for (int i = 0; i < ready; ++i) {
    // An earlier handler of this turn may have removed the descriptor. A new descriptor with the
    // same number may get a spurious call, which every handler accepts.
    const std::shared_ptr<Ready>* const found = data_->handlerOf(events[i].data.fd);
    if (found != nullptr) {
      const std::shared_ptr<Ready> handler = *found;
      (*handler)(events[i].events);
    }
  }
  data_->runTimers();
  data_->runCalls();
}

void Loop::Data::runTimers() {
  const Clock::time_point now = Clock::now();
  while (!timers.empty() && timers.begin()->first.due <= now) {
    const Call call = std::move(timers.begin()->second);
    timers.erase(timers.begin());
    call();
  }
}

// Run only the calls that are queued now: a call may queue a further one.
void Loop::Data::runCalls() {
  std::vector<Call> due;
  due.swap(calls);
  for (const Call& call : due) {
    call();
  }
}

int Loop::descriptor() const {
  return data_->epoll.get();
}

std::optional<Clock::time_point> Loop::deadline() const {
  if (!data_->calls.empty()) {
    return Clock::now();
  }
  if (data_->timers.empty()) {
    return std::nullopt;
  }
  return data_->timers.begin()->first.due;
}

void Loop::step() {
  turn(Milliseconds(0));
}

void Loop::setResolver(Resolver resolver) {
  data_->resolver = std::move(resolver);
}

void Loop::resolve(const std::string& host, Resolved resolved) {
  in_addr address{};
  if (inet_pton(AF_INET, host.c_str(), &address) == 1) {
    resolved(address);
  } else if (data_->resolver) {
    data_->resolver(host, std::move(resolved));
  } else {
    resolved(Error(Kind::link, Cause::resolve, "not an IPv4 address, and no resolver is set"));
  }
}

}  // namespace v1
}  // namespace runel
