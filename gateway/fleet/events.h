// SPDX-License-Identifier: Apache-2.0
// What has changed, for subscribers that may have missed a part.
#ifndef RUNELGW_FLEET_EVENTS_H_
#define RUNELGW_FLEET_EVENTS_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gateway/core/outcome.h"

namespace runelgw {

/// What has happened.
enum class EventType {
  added,        ///< a device was seen for the first time
  connected,    ///< a device is online; `text` is its place
  lost,         ///< a device is no longer online; `text` is the reason
  waiting,      ///< a device waits for its approval
  denied,       ///< a device is denied; `text` says by what
  quarantined,  ///< a connection of a device is not used; `text` says why
  changed,      ///< properties of a device; `text` names them: "tags", "kernel,free"
  forgotten,    ///< a device was removed
  agent,        ///< `text` is "connected" or "lost"
  clause,       ///< `text` is a clause of the device's agent, any bytes
  group,        ///< a saved group was set or removed; `text` is its name
  rule,         ///< a rule for tags was set or removed; `text` is its name
  access,       ///< an entry of the list of allowed or denied devices was changed
  refused,      ///< a connection without a device was refused; `text` is "PLACE: why"
  operation,    ///< a long-running operation has changed; `text` is its id
  problem,      ///< the gateway itself has a problem; `text` says which
};

/// "connected", "lost"...: the names of the enumerators.
[[nodiscard]] const char* nameOf(EventType type);

/// One event.
struct Event {
  std::uint64_t id = 0;   ///< increases with each event, also over restarts; never 0
  std::int64_t time = 0;  ///< wall clock, in milliseconds since 1970
  EventType type = EventType::problem;
  DeviceId device = 0;  ///< 0 if it is not about one device
  std::string name;     ///< of the device
  std::string text;
};

/// Numbers events, calls subscribers and keeps the newest events for subscribers that come back.
/// Belongs to the I/O thread.
class Events {
 public:
  using Handler = std::function<void(const Event& event)>;

  /// The events that a subscriber has missed.
  struct Replay {
    /// Some of the missed events are no longer here: read the whole state instead.
    bool tooOld = false;
    std::vector<Event> events;  ///< oldest first; empty if `tooOld`
  };

  /// How many events are kept, and how many bytes of their texts.
  struct Limits {
    std::size_t events = 10000;
    std::size_t bytes = std::size_t{8} << 20;
  };

  /// Ends a subscription when it is destroyed. May outlive the events.
  class Subscription {
   public:
    Subscription() = default;

   private:
    friend class Events;
    explicit Subscription(std::shared_ptr<const Handler> handler) : handler_(std::move(handler)) {}
    std::shared_ptr<const Handler> handler_;
  };

  /// @p now returns the wall clock time. The first event gets the id @p first.
  explicit Events(std::function<std::int64_t()> now, std::uint64_t first = 1);
  Events(std::function<std::int64_t()> now, std::uint64_t first, Limits limits);
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  /// Numbers the event, keeps it, and calls all subscribers in the order of their subscriptions,
  /// within this call. A subscriber may subscribe, end any subscription and publish: what it
  /// publishes is delivered after the current event.
  void publish(EventType type, DeviceId device, std::string name, std::string text);

  /// Calls @p handler with each later event while the result exists. Call `after` first, in the
  /// same handler of the loop, and nothing is missed.
  [[nodiscard]] Subscription subscribe(Handler handler);

  /// The events after the event @p id, which the caller has seen last. `tooOld` also for an id that
  /// was never given, such as one of another database.
  [[nodiscard]] Replay after(std::uint64_t id) const;

  /// The id of the newest event; one less than the first before there is any.
  [[nodiscard]] std::uint64_t last() const { return next_ - 1; }
  /// How many subscribers there are, for metrics.
  [[nodiscard]] std::size_t subscribers() const;

 private:
  void deliver();
  void dropEnded();

  const std::function<std::int64_t()> now_;
  const Limits limits_;
  std::uint64_t next_;
  std::deque<Event> kept_;
  std::size_t bytes_ = 0;
  std::deque<Event> undelivered_;
  bool delivering_ = false;
  std::vector<std::weak_ptr<const Handler>> handlers_;
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_EVENTS_H_
