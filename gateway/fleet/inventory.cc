// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/inventory.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <runel/records.h>

namespace runelgw {
namespace {

using Time = runel::Clock::time_point;

// The questions of a round, in this order. All are cheap and safe to repeat.
enum class Question { deviceType, kernel, blockSize, freeBlocks, none };

std::vector<std::string> wordsOf(Question question) {
  switch (question) {
    case Question::deviceType:
      return {"devicetype"};
    case Question::kernel:
      return {"read", "/proc/sys/kernel/osrelease"};
    case Question::blockSize:
      return {"stat", "/"};
    default:
      return {"freeblocks", "/"};
  }
}

Question after(Question question) {
  return static_cast<Question>(static_cast<int>(question) + 1);
}

std::optional<std::uint64_t> product(std::uint64_t one, std::uint64_t other) {
  if (one != 0 && other > std::numeric_limits<std::uint64_t>::max() / one) {
    return std::nullopt;
  }
  return one * other;
}

// A number in (0, 1] that spreads consecutive numbers evenly: the golden ratio.
double spread(DeviceId device) {
  const double turns = static_cast<double>(device) * 0.6180339887498949;
  return 1.0 - (turns - static_cast<double>(static_cast<std::uint64_t>(turns)));
}

}  // namespace

class Inventory::Data {
 public:
  Data(Registry& registry, Router& router, InventoryRules rules, Clocks clocks)
      : registry_(registry), router_(router), rules_(rules), clocks_(std::move(clocks)) {
    lastTick_ = clocks_.steady();
    room_ = static_cast<double>(rules_.startsPerSecond);
    subscription_ = registry_.events().subscribe([this](const Event& event) { heed(event); });
    for (const Device* const device : registry_.select(*Query::parse("state:online"))) {
      schedule(device->id, lastTick_, true);
    }
  }

  ~Data() {
    for (const auto& [device, round] : rounds_) {
      router_.cancel(round.call);
    }
  }

  Data(const Data&) = delete;
  Data& operator=(const Data&) = delete;

  void tick() {
    const Time now = clocks_.steady();
    const auto rate = static_cast<double>(rules_.startsPerSecond);
    room_ += std::chrono::duration<double>(now - lastTick_).count() * rate;
    room_ = std::min(room_, rate);
    lastTick_ = now;
    begin();
  }

  [[nodiscard]] InventoryState state() const {
    InventoryState state = state_;
    state.scheduled = due_.size() + rounds_.size();
    state.asking = rounds_.size();
    return state;
  }

 private:
  struct Round {
    Question question = Question::kernel;
    bool first = false;
    CallId call = 0;
    bool answered = false;
    Facts facts;
    std::optional<std::uint64_t> blockSize;
  };
  struct Due {
    Time when;
    bool first = false;
  };

  void heed(const Event& event) {
    if (event.device == 0 || event.type == EventType::clause || event.type == EventType::changed) {
      return;
    }
    const Device* const device = registry_.find(event.device);
    const bool online = device != nullptr && device->state == DeviceState::online;
    if (event.type == EventType::connected && online) {
      forget(event.device);
      schedule(event.device, clocks_.steady(), true);
    } else if (!online) {
      forget(event.device);
    }
  }

  void schedule(DeviceId device, Time when, bool first) {
    due_[device] = {when, first};
    order_.insert({when, device});
  }

  void unschedule(DeviceId device) {
    const auto found = due_.find(device);
    if (found != due_.end()) {
      order_.erase({found->second.when, device});
      due_.erase(found);
    }
  }

  void forget(DeviceId device) {
    unschedule(device);
    const auto round = rounds_.find(device);
    if (round != rounds_.end()) {
      router_.cancel(round->second.call);
      rounds_.erase(round);
    }
  }

  // Begins rounds that are due.
  void begin() {
    const Time now = clocks_.steady();
    while (!order_.empty() && order_.begin()->first <= now && room_ >= 1.0 &&
           rounds_.size() < rules_.atOnce) {
      const DeviceId device = order_.begin()->second;
      const bool first = due_.at(device).first;
      unschedule(device);
      room_ -= 1.0;
      Round& round = rounds_[device];
      round.first = first;
      round.question =
          first ? Question::kernel : Question::deviceType;  // its type came with the connection
      ask(device);
    }
  }

  void ask(DeviceId device) {
    if (router_.queue(device).waiting > 0) {
      ++state_.skipped;
      putOff(device);
      return;
    }
    Round& round = rounds_.at(device);
    Call call;
    call.device = device;
    call.request = Payload(runel::Request(wordsOf(round.question)).encode());
    call.deadline = clocks_.steady() + rules_.timeout;
    call.repeat = false;  // it is asked again when it is back
    call.label = "inventory";
    round.call = router_.send(std::move(call),
                              [this, device](const Answer& answer) { take(device, answer); });
  }

  void take(DeviceId device, const Answer& answer) {
    const auto found = rounds_.find(device);
    if (found == rounds_.end()) {
      return;
    }
    Round& round = found->second;
    if (answer.outcome != Outcome::answered) {
      ++state_.failed;
      finish(device);
      return;
    }
    round.answered = true;
    if (!learn(round, answer.payload)) {
      ++state_.failed;
    }
    round.question = after(round.question);
    if (round.question == Question::none) {
      finish(device);
    } else {
      ask(device);
    }
    begin();
  }

  // False for an answer without the fact.
  static bool learn(Round& round, const Payload& payload) {
    const auto reply = payload.isInMemory() ? runel::Reply::decode(payload.bytes()) : std::nullopt;
    if (!reply || !reply->ok()) {
      return false;
    }
    switch (round.question) {
      case Question::deviceType:
        round.facts.deviceType = reply->output();
        return true;
      case Question::kernel:
        round.facts.kernel = reply->output();
        return true;
      case Question::blockSize: {
        const auto stat = runel::parseStat(reply->output());
        round.blockSize = stat ? std::optional(stat->blksize) : std::nullopt;
        return stat.has_value();
      }
      default: {
        const auto blocks = runel::parseNumber(reply->output());
        if (blocks && round.blockSize) {
          round.facts.freeBytes = product(*blocks, *round.blockSize);
        }
        return round.facts.freeBytes.has_value();
      }
    }
  }

  void finish(DeviceId device) {
    const Round round = std::move(rounds_.at(device));
    rounds_.erase(device);
    ++state_.rounds;
    if (rules_.interval.count() > 0) {
      // The first one after the connect begins anywhere in the interval.
      const double part = round.first ? spread(device) : 1.0;
      const auto wait = std::chrono::duration_cast<runel::Clock::duration>(rules_.interval * part);
      schedule(device, clocks_.steady() + wait, false);
    }
    if (round.answered) {
      registry_.learn(device, round.facts);
    }
  }

  // It has other work now. What it has told already counts.
  void putOff(DeviceId device) {
    const Round round = std::move(rounds_.at(device));
    rounds_.erase(device);
    schedule(device, clocks_.steady() + rules_.retry, round.first);
    if (round.answered) {
      registry_.learn(device, round.facts);
    }
  }

  Registry& registry_;
  Router& router_;
  const InventoryRules rules_;
  const Clocks clocks_;
  Events::Subscription subscription_;
  std::map<DeviceId, Due> due_;
  std::set<std::pair<Time, DeviceId>> order_;  // the same by time
  std::map<DeviceId, Round> rounds_;
  InventoryState state_;
  Time lastTick_;
  double room_ = 0;  // for rounds that begin now
};

Inventory::Inventory(Registry& registry, Router& router, InventoryRules rules, Clocks clocks)
    : data_(std::make_unique<Data>(registry, router, rules, std::move(clocks))) {}

Inventory::~Inventory() = default;

void Inventory::tick() {
  data_->tick();
}

InventoryState Inventory::state() const {
  return data_->state();
}

}  // namespace runelgw
