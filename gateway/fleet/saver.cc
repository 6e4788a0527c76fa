// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/saver.h"

#include <algorithm>
#include <utility>

namespace runelgw {
namespace {

constexpr std::size_t kBatch = 500;
constexpr std::size_t kMostPending = 50000;
constexpr std::size_t kMostClauseBytes = std::size_t{16} << 20;
constexpr int kMostAttempts = 10;
// With so many changes that the store has not committed, further ones wait here, where several of
// one device become one.
constexpr std::size_t kMostQueued = 20000;

const ClauseRecord* clauseIn(const Change& change) {
  const auto* const clause = std::get_if<Append<ClauseRecord>>(&change);
  return clause == nullptr ? nullptr : &clause->record;
}

// Records that are lost before anything else is.
bool isLog(const Change& change) {
  return std::holds_alternative<Append<HistoryRecord>>(change) || clauseIn(change) != nullptr;
}

// The device that a tag or a record belongs to; 0 for other changes.
DeviceId deviceOf(const Change& change) {
  if (const auto* const tag = std::get_if<Save<TagRecord>>(&change)) {
    return tag->record.device;
  }
  if (const auto* const tag = std::get_if<RemoveTag>(&change)) {
    return tag->device;
  }
  if (const auto* const event = std::get_if<Append<HistoryRecord>>(&change)) {
    return event->record.device;
  }
  return clauseIn(change) == nullptr ? 0 : clauseIn(change)->device;
}

}  // namespace

Saver::Saver(Store& store, RecordOf recordOf, std::function<void(const std::string&)> problem)
    : store_(store), recordOf_(std::move(recordOf)), problem_(std::move(problem)) {}

bool Saver::hasRoom(const Change& change) {
  const ClauseRecord* const clause = clauseIn(change);
  if (!isLog(change)) {
    return true;
  }
  if (pending_.size() >= kMostPending ||
      (clause != nullptr && clauseBytes_ + clause->text.size() > kMostClauseBytes)) {
    return false;
  }
  clauseBytes_ += clause == nullptr ? 0 : clause->text.size();
  return true;
}

void Saver::drop(const std::string& why) {
  ++dropped_;
  if (!told_) {
    told_ = true;
    problem_("records of devices are not stored: " + why);
  }
}

void Saver::add(Change change) {
  if (hasRoom(change)) {
    pending_.push_back({std::move(change)});
  } else {
    drop("there are more than the database takes");
  }
}

void Saver::deviceForgotten(DeviceId device) {
  devices_.erase(device);
  for (Batch* const batch : {&pending_, &refused_}) {
    batch->erase(std::remove_if(batch->begin(), batch->end(),
                                [&](const Pending& one) { return deviceOf(one.change) == device; }),
                 batch->end());
  }
  pending_.push_back({RemoveDevice{device}});
}

void Saver::writeSome() {
  const bool some = !devices_.empty() || !pending_.empty() || !refused_.empty();
  if (some && store_.state().queued < kMostQueued) {
    write({});
  }
}

void Saver::write(Store::Done done) {
  // Devices first: tags and events refer to them.
  Batch refused = std::exchange(refused_, {});
  Batch pending = std::exchange(pending_, {});
  const std::set<DeviceId> changed = std::exchange(devices_, {});
  clauseBytes_ = 0;
  Batch batch;
  std::vector<DeviceId> devices;
  const auto flush = [&] { send(std::exchange(batch, {}), std::exchange(devices, {}), {}); };
  for (const DeviceId device : changed) {
    if (auto record = recordOf_(device)) {
      batch.push_back({Save<DeviceRecord>{*std::move(record)}});
      devices.push_back(device);
    }
    if (batch.size() == kBatch) {
      flush();
    }
  }
  for (Pending& one : refused) {
    flush();
    batch.push_back(std::move(one));
    flush();
  }
  for (Pending& one : pending) {
    batch.push_back(std::move(one));
    if (batch.size() >= kBatch) {
      flush();
    }
  }
  // Also without changes: it is done after all before it.
  send(std::move(batch), std::move(devices), std::move(done));
}

void Saver::send(Batch batch, std::vector<DeviceId> devices, Store::Done done) {
  if (batch.empty() && !done) {
    return;
  }
  std::vector<Change> changes;
  for (const Pending& one : batch) {
    changes.push_back(one.change);
  }
  store_.write(std::move(changes), [this, alive = std::weak_ptr<bool>(alive_),
                                    batch = std::move(batch), devices = std::move(devices),
                                    done = std::move(done)](std::optional<std::string> error) {
    if (!alive.expired()) {
      if (error) {
        failed(batch, devices, *error);
      } else if (!batch.empty()) {
        told_ = false;
      }
    }
    if (done) {
      done(std::move(error));
    }
  });
}

void Saver::failed(Batch batch, const std::vector<DeviceId>& devices, const std::string& why) {
  for (const DeviceId device : devices) {
    if (recordOf_(device)) {
      devices_.insert(device);
    }
  }
  for (Pending& one : batch) {
    if (std::holds_alternative<Save<DeviceRecord>>(one.change)) {
      continue;  // its newest state is written
    }
    const DeviceId device = deviceOf(one.change);
    if (device != 0 && !recordOf_(device)) {
      continue;  // it was forgotten meanwhile
    }
    const bool again = !isLog(one.change) || ++one.attempts < kMostAttempts;
    if (again && refused_.size() < kMostPending) {
      refused_.push_back(std::move(one));
    } else {
      drop(why);
    }
  }
}

}  // namespace runelgw
