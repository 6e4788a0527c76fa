// SPDX-License-Identifier: Apache-2.0
// Event loop with one thread and one epoll descriptor: descriptors, timers and deferred calls.
#ifndef RUNEL_IO_LOOP_H_
#define RUNEL_IO_LOOP_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace runel {

using Milliseconds = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// Calls handlers for events. A handler may add and remove any handler or timer, including itself.
class Loop {
 public:
  using Ready = std::function<void(std::uint32_t events)>;
  using Call = std::function<void()>;
  /// Identifies a timer by its due time and a number. Number 0 is no timer.
  struct Timer {
    Clock::time_point due;
    std::uint64_t id = 0;
    bool operator<(const Timer& other) const {
      return due != other.due ? due < other.due : id < other.id;
    }
  };

  Loop();

  /// Calls @p ready whenever one of @p events (EPOLLIN, EPOLLOUT...) is pending on @p fd. The
  /// caller keeps ownership of @p fd. Returns false with errno on failure.
  [[nodiscard]] bool watch(int fd, std::uint32_t events, Ready ready);
  /// Replaces the @p events of a watched descriptor.
  void change(int fd, std::uint32_t events);
  /// Must be called before @p fd is closed. Ignores a descriptor that is not watched.
  void forget(int fd);

  /// Calls @p call once, after @p delay.
  Timer after(Milliseconds delay, Call call);
  /// Ignores a timer that has already expired. Resets @p timer.
  void cancel(Timer& timer);

  /// Calls @p call in the next turn, after the current handler has returned.
  void next(Call call) { calls_.push_back(std::move(call)); }

  /// Handles events until `stop`.
  void run();
  /// Runs one turn, waiting at most @p limit for events.
  void turn(Milliseconds limit);
  void stop() { stopped_ = true; }

 private:
  [[nodiscard]] int waitTime(Milliseconds limit) const;
  void runCalls();
  void runTimers();

  zell::UniqueFd epoll_;
  // Shared, so that a handler that removes itself lives until it returns.
  std::unordered_map<int, std::shared_ptr<Ready>> watched_;
  std::map<Timer, Call> timers_;
  std::vector<Call> calls_;
  std::uint64_t lastTimer_ = 0;
  bool stopped_ = false;
};

}  // namespace runel

#endif  // RUNEL_IO_LOOP_H_
