// SPDX-License-Identifier: Apache-2.0
// One thread, one epoll: descriptors that are ready, timers that are due, calls to make next.
#ifndef ZELL_RUNELCTL_CLIENT_LOOP_H_
#define ZELL_RUNELCTL_CLIENT_LOOP_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace zell::ctl {

using Milliseconds = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// Calls handlers as things happen. A handler may watch, forget, start and cancel anything, its own
/// included.
class Loop {
 public:
  using Ready = std::function<void(std::uint32_t events)>;
  using Call = std::function<void()>;
  /// Names a timer: when it is due, and which one of that moment. 0 names none.
  struct Timer {
    Clock::time_point due;
    std::uint64_t id = 0;
    bool operator<(const Timer& other) const {
      return due != other.due ? due < other.due : id < other.id;
    }
  };

  Loop();

  /// Calls @p ready whenever one of @p events (EPOLLIN, EPOLLOUT...) holds for @p fd, which stays
  /// the caller's. False with errno when it cannot be watched.
  [[nodiscard]] bool watch(int fd, std::uint32_t events, Ready ready);
  /// Asks for other @p events of a descriptor that is watched.
  void change(int fd, std::uint32_t events);
  /// Must be called before @p fd is closed. One that is not watched is no error.
  void forget(int fd);

  /// Calls @p call once, @p delay from now.
  Timer after(Milliseconds delay, Call call);
  /// Nothing happens when it was called already. @p timer names none afterwards.
  void cancel(Timer& timer);

  /// Calls @p call at the next turn: from a clean stack, after the handler that runs now.
  void next(Call call) { calls_.push_back(std::move(call)); }

  /// Waits for something to happen and makes the calls for it, until `stop`.
  void run();
  /// One round of that, waiting at most @p limit.
  void turn(Milliseconds limit);
  void stop() { stopped_ = true; }

 private:
  [[nodiscard]] int waitTime(Milliseconds limit) const;
  void runCalls();
  void runTimers();

  UniqueFd epoll_;
  // Shared, so that a handler which forgets itself lives until it returns.
  std::unordered_map<int, std::shared_ptr<Ready>> watched_;
  std::map<Timer, Call> timers_;
  std::vector<Call> calls_;
  std::uint64_t lastTimer_ = 0;
  bool stopped_ = false;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLIENT_LOOP_H_
