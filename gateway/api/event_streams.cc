// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/event_streams.h"

#include <algorithm>
#include <utility>

#include "gateway/api/scope.h"

namespace runelgw {
namespace {

// Events without a device that tell about other clients or about the gateway.
bool isForOwners(EventType type) {
  return type == EventType::access || type == EventType::refused || type == EventType::problem ||
         type == EventType::operation;
}

bool isDenied(const Identity& who, EventType type) {
  if (type == EventType::clause) {
    return !who.kinds.has(TaskKind::read);
  }
  return isForOwners(type) && !(who.role == Role::admin && who.unlimited());
}

}  // namespace

Json jsonOf(const Event& event) {
  return {{"id", event.id},
          {"time", timeOf(event.time)},
          {"type", nameOf(event.type)},
          {"device", event.name.empty() ? Json(nullptr) : Json(printable(event.name))},
          {"text", bytesOf(event.text)}};
}

std::size_t EventStreams::countOf(std::uint64_t token) const {
  return static_cast<std::size_t>(std::count_if(
      streams_.begin(), streams_.end(),
      [&](const std::shared_ptr<Follower>& stream) { return stream->wish.who.token == token; }));
}

bool EventStreams::wants(const EventWish& wish, const Event& event) const {
  if ((wish.onlyClauses && event.type != EventType::clause) ||
      (wish.device != 0 && event.device != wish.device) || isDenied(wish.who, event.type)) {
    return false;
  }
  if (event.device == 0) {
    return !wish.query;
  }
  const Device* const device = registry_.find(event.device);
  if (device == nullptr) {  // forgotten: its groups are not known any more
    return wish.who.groups.empty() && !wish.query;
  }
  return sees(registry_, wish.who, *device) &&
         (!wish.query || registry_.matches(*device, *wish.query));
}

void EventStreams::add(EventWish wish, std::shared_ptr<EventStream> stream) {
  auto follower = std::make_shared<Follower>();
  follower->wish = std::move(wish);
  follower->stream = std::move(stream);
  const auto tell = [this](const Follower& to, const Event& event) {
    return !wants(to.wish, event) ||
           to.stream->send(std::to_string(event.id), nameOf(event.type), textOf(jsonOf(event)));
  };
  if (follower->wish.after) {
    const Events::Replay replay = registry_.events().after(*follower->wish.after);
    if (replay.tooOld) {
      (void)follower->stream->send(std::to_string(registry_.events().last()), "reset",
                                   textOf({{"id", registry_.events().last()},
                                           {"time", nullptr},
                                           {"type", "reset"},
                                           {"device", nullptr},
                                           {"text", "events are missing: read the state again"}}));
    }
    for (const Event& event : replay.events) {
      if (!tell(*follower, event)) {
        return;
      }
    }
  }
  follower->subscription = registry_.events().subscribe(
      [tell, weak = std::weak_ptr<Follower>(follower)](const Event& event) {
        if (const std::shared_ptr<Follower> to = weak.lock()) {
          (void)tell(*to, event);  // a stream that has ended is removed by the next tick
        }
      });
  streams_.push_back(std::move(follower));
}

void EventStreams::tick() {
  for (auto stream = streams_.begin(); stream != streams_.end();) {
    Follower& follower = **stream;
    if (!follower.stream->gone() && auth_.isValid(follower.wish.who)) {
      ++stream;
      continue;
    }
    follower.stream->close();
    stream = streams_.erase(stream);
  }
}

}  // namespace runelgw
