// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/state_router.h"

#include <utility>

namespace runelgw {
namespace {

// Ids above it are of refused calls. The next router counts from 1.
constexpr CallId kFirstRefused = CallId{1} << 63U;

struct Refusal {
  Reason reason;
  const char* text;
};

std::optional<Refusal> refusalOf(DeviceState state) {
  switch (state) {
    case DeviceState::waiting:
      return Refusal{Reason::waiting, "the device is not approved yet"};
    case DeviceState::denied:
      return Refusal{Reason::denied, "the device is denied"};
    case DeviceState::quarantined:
      return Refusal{Reason::quarantined,
                     "the device is quarantined: its connection is not the one that is expected"};
    case DeviceState::online:
    case DeviceState::offline:
      break;
  }
  return std::nullopt;
}

}  // namespace

StateRouter::StateRouter(runel::Loop& loop, Router& next, StateOf stateOf)
    : loop_(loop), next_(next), stateOf_(std::move(stateOf)) {}

CallId StateRouter::send(Call call, Done done) {
  const std::optional<DeviceState> state = stateOf_(call.device);
  const std::optional<Refusal> refusal = state ? refusalOf(*state) : std::nullopt;
  if (!refusal) {
    return next_.send(std::move(call), std::move(done));
  }
  const CallId id = kFirstRefused + ++refused_;
  pending_.insert(id);
  loop_.next([this, id, refusal = *refusal, done = std::move(done)] {
    if (pending_.erase(id) != 0) {
      done({Outcome::notRun, refusal.reason, refusal.text, {}});
    }
  });
  return id;
}

void StateRouter::cancel(CallId id) {
  if (id > kFirstRefused) {
    pending_.erase(id);
  } else {
    next_.cancel(id);
  }
}

QueueState StateRouter::queue(DeviceId device) const {
  return next_.queue(device);
}

runel::Result<void> StateRouter::sendClause(DeviceId device, const std::string& clause) {
  return next_.sendClause(device, clause);
}

}  // namespace runelgw
