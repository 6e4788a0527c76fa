// SPDX-License-Identifier: Apache-2.0
#include "client/io/loop.h"

#include <algorithm>
#include <cstddef>

#include <sys/epoll.h>

namespace runel {
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

Loop::Loop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {}

bool Loop::watch(int fd, std::uint32_t events, Ready ready) {
  epoll_event event = eventFor(fd, events);
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    return false;
  }
  watched_[fd] = std::make_shared<Ready>(std::move(ready));
  return true;
}

void Loop::change(int fd, std::uint32_t events) {
  epoll_event event = eventFor(fd, events);
  (void)epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);  // fd is watched
}

void Loop::forget(int fd) {
  if (watched_.erase(fd) != 0) {
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);  // fd is watched
  }
}

Loop::Timer Loop::after(Milliseconds delay, Call call) {
  const Timer timer{Clock::now() + delay, ++lastTimer_};
  timers_.emplace(timer, std::move(call));
  return timer;
}

void Loop::cancel(Timer& timer) {
  timers_.erase(timer);
  timer = Timer();
}

void Loop::run() {
  stopped_ = false;
  while (!stopped_) {
    turn(kLongest);
  }
}

int Loop::waitTime(Milliseconds limit) const {
  if (!calls_.empty()) {
    return 0;
  }
  if (!timers_.empty()) {
    const auto left = timers_.begin()->first.due - Clock::now();
    limit = std::min(limit, std::chrono::ceil<Milliseconds>(left));
  }
  return static_cast<int>(std::clamp(limit, Milliseconds(0), kLongest).count());
}

void Loop::turn(Milliseconds limit) {
  epoll_event events[kEventsAtOnce];
  const int ready = epoll_wait(epoll_.get(), events, kEventsAtOnce, waitTime(limit));
  for (int i = 0; i < ready; ++i) {
    // An earlier handler of this turn may have removed the descriptor. A new descriptor with the
    // same number may get a spurious call, which every handler accepts.
    const auto found = watched_.find(events[i].data.fd);
    if (found != watched_.end()) {
      const std::shared_ptr<Ready> handler = found->second;
      (*handler)(events[i].events);
    }
  }
  runTimers();
  runCalls();
}

void Loop::runTimers() {
  const Clock::time_point now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first.due <= now) {
    const Call call = std::move(timers_.begin()->second);
    timers_.erase(timers_.begin());
    call();
  }
}

// Run only the calls that are queued now: a call may queue another one.
void Loop::runCalls() {
  std::vector<Call> calls;
  calls.swap(calls_);
  for (const Call& call : calls) {
    call();
  }
}

}  // namespace runel
