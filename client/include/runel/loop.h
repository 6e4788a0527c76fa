// SPDX-License-Identifier: Apache-2.0
// The event loop: descriptors, timers and deferred calls. Runs alone or within another loop.
#ifndef RUNEL_LOOP_H_
#define RUNEL_LOOP_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <netinet/in.h>

#include <runel/export.h>
#include <runel/request.h>
#include <runel/result.h>

namespace runel {
inline namespace v1 {

/// The clock of all deadlines: it never jumps.
using Clock = std::chrono::steady_clock;

/// Identifies a timer by its due time and a number. Number 0 is no timer.
struct Timer {
  Clock::time_point due;  ///< when it expires
  std::uint64_t id = 0;   ///< unique within its loop
  /// By due time, then in the order of their creation.
  bool operator<(const Timer& other) const {
    return due != other.due ? due < other.due : id < other.id;
  }
};

/// Calls handlers for events. A handler may add and remove any handler or timer, including itself.
/// The loop and all objects on it belong to one thread; nothing here starts another one.
///
/// It runs by itself with `run`, or within a program's own loop: watch `descriptor` for input, call
/// `step` when it is readable and when `deadline` has come. All operations are idempotent.
class RUNEL_API Loop {
 public:
  /// Receives the pending events of a descriptor: EPOLLIN, EPOLLOUT, EPOLLHUP, EPOLLERR.
  using Ready = std::function<void(std::uint32_t events)>;
  /// A timer's or a deferred call.
  using Call = std::function<void()>;

  Loop();
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

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
  /// Calls @p call in the next step, after the current handler has returned.
  void next(Call call);

  /// Handles events until `stop`.
  void run();
  /// Makes `run` return after the current handler. May be called before `run`.
  void stop();
  /// Runs one step, waiting at most @p limit for events.
  void turn(Milliseconds limit);

  /// Becomes readable when there are events. The loop keeps ownership.
  [[nodiscard]] int descriptor() const;
  /// When to call `step` at the latest; without a value only `descriptor` matters. Changes with
  /// each step and each call of an object on this loop.
  [[nodiscard]] std::optional<Clock::time_point> deadline() const;
  /// Handles what is pending now, without waiting.
  void step();

  /// Receives the IPv4 address, in network byte order, or an error.
  using Resolved = std::function<void(Result<in_addr> address)>;
  /// Looks up a host name; calls its second argument once, now or later.
  using Resolver = std::function<void(const std::string& host, Resolved resolved)>;
  /// Sets who looks up host names for the objects on this loop. Without a resolver only numeric
  /// addresses can be connected to: a look-up blocks, and the loop never does.
  void setResolver(Resolver resolver);
  /// Resolves @p host: numeric addresses at once, names with the resolver.
  void resolve(const std::string& host, Resolved resolved);

 private:
  struct RUNEL_LOCAL Data;
  std::unique_ptr<Data> data_;
};

/// A resolver that uses `resolveBlocking`: for programs that may stand still meanwhile.
[[nodiscard]] RUNEL_API Loop::Resolver blockingResolver();

/// Looks up @p host with the system's name service, and BLOCKS meanwhile. Keeps what it has found
/// for the rest of the process. Safe to call in any thread.
[[nodiscard]] RUNEL_API Result<in_addr> resolveBlocking(const std::string& host);

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_LOOP_H_
