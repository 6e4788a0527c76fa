// SPDX-License-Identifier: Apache-2.0
// Clients that follow what changes, as server-sent events.
#ifndef RUNELGW_API_EVENT_STREAMS_H_
#define RUNELGW_API_EVENT_STREAMS_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gateway/api/json_text.h"
#include "gateway/auth/auth.h"
#include "gateway/fleet/registry.h"
#include "gateway/http/http.h"

namespace runelgw {

/// What a client wants to follow.
struct EventWish {
  Identity who;
  std::optional<Query> query;  ///< only events of these devices
  DeviceId device = 0;         ///< only events of this device
  bool onlyClauses = false;
  std::optional<std::uint64_t> after;  ///< the id of the last event that the client has seen
};

class EventStreams {
 public:
  /// Both must outlive it.
  EventStreams(Registry& registry, const Auth& auth) : registry_(registry), auth_(auth) {}

  [[nodiscard]] std::size_t size() const { return streams_.size(); }
  [[nodiscard]] std::size_t countOf(std::uint64_t token) const;
  /// Sends the events to @p stream from now on, after the ones that the client has missed.
  void add(EventWish wish, std::shared_ptr<EventStream> stream);
  /// Ends the streams of clients that have lost their rights, and forgets those that have gone.
  void tick();
  void clear() { streams_.clear(); }

 private:
  struct Follower {
    EventWish wish;
    std::shared_ptr<EventStream> stream;
    Events::Subscription subscription;
  };

  [[nodiscard]] bool wants(const EventWish& wish, const Event& event) const;

  Registry& registry_;
  const Auth& auth_;
  std::list<std::shared_ptr<Follower>> streams_;
};

/// {"id", "time", "type", "device", "text"}
[[nodiscard]] Json jsonOf(const Event& event);

}  // namespace runelgw

#endif  // RUNELGW_API_EVENT_STREAMS_H_
