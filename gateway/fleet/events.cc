// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/events.h"

#include <algorithm>

namespace runelgw {
namespace {

std::size_t sizeOf(const Event& event) {
  return event.name.size() + event.text.size();
}

}  // namespace

const char* nameOf(EventType type) {
  static constexpr const char* kNames[] = {
      "added", "connected", "lost",  "waiting", "denied", "quarantined", "changed",   "forgotten",
      "agent", "clause",    "group", "rule",    "access", "refused",     "operation", "problem"};
  return kNames[static_cast<std::size_t>(type)];
}

Events::Events(std::function<std::int64_t()> now, std::uint64_t first)
    : Events(std::move(now), first, Limits()) {}

Events::Events(std::function<std::int64_t()> now, std::uint64_t first, Limits limits)
    : now_(std::move(now)), limits_(limits), next_(std::max<std::uint64_t>(first, 1)) {}

void Events::publish(EventType type, DeviceId device, std::string name, std::string text) {
  Event event{next_++, now_(), type, device, std::move(name), std::move(text)};
  undelivered_.push_back(event);
  bytes_ += sizeOf(event);
  kept_.push_back(std::move(event));
  while (kept_.size() > limits_.events || (bytes_ > limits_.bytes && !kept_.empty())) {
    bytes_ -= sizeOf(kept_.front());
    kept_.pop_front();
  }
  if (!delivering_) {
    deliver();
  }
}

void Events::deliver() {
  delivering_ = true;
  while (!undelivered_.empty()) {
    const Event event = std::move(undelivered_.front());
    undelivered_.pop_front();
    // A handler may subscribe: the vector may grow and move.
    const std::size_t count = handlers_.size();
    for (std::size_t at = 0; at < count; ++at) {
      if (const std::shared_ptr<const Handler> handler = handlers_[at].lock()) {
        (*handler)(event);
      }
    }
  }
  delivering_ = false;
  dropEnded();
}

void Events::dropEnded() {
  handlers_.erase(std::remove_if(handlers_.begin(), handlers_.end(),
                                 [](const auto& handler) { return handler.expired(); }),
                  handlers_.end());
}

Events::Subscription Events::subscribe(Handler handler) {
  if (!delivering_) {
    dropEnded();
  }
  auto shared = std::make_shared<const Handler>(std::move(handler));
  handlers_.push_back(shared);
  return Subscription(std::move(shared));
}

Events::Replay Events::after(std::uint64_t id) const {
  Replay replay;
  const std::uint64_t oldest = kept_.empty() ? next_ : kept_.front().id;
  replay.tooOld = id + 1 < oldest || id >= next_;
  if (!replay.tooOld) {
    const auto begin = kept_.begin() + static_cast<std::ptrdiff_t>(id + 1 - oldest);
    replay.events.assign(begin, kept_.end());
  }
  return replay;
}

std::size_t Events::subscribers() const {
  return static_cast<std::size_t>(std::count_if(
      handlers_.begin(), handlers_.end(), [](const auto& handler) { return !handler.expired(); }));
}

}  // namespace runelgw
