// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/operations.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace runelgw {
namespace {

// The rows of one transaction when an operation begins.
constexpr std::size_t kChunk = 1000;
constexpr std::string_view kKeyPrefix = "idempotency/";

void count(OperationRecord& record, const std::string& outcome) {
  if (outcome == outcomeName(Outcome::answered)) {
    ++record.answered;
  } else if (outcome == outcomeName(Outcome::notRun)) {
    ++record.notRun;
  } else {
    ++record.unknown;
  }
}

// "ID TIME FINGERPRINT"
std::string keyText(std::uint64_t id, std::int64_t time, const std::string& fingerprint) {
  return std::to_string(id) + " " + std::to_string(time) + " " + fingerprint;
}

bool readKey(const std::string& text, Operations::Former& former, std::int64_t& time) {
  const std::size_t first = text.find(' ');
  const std::size_t second = first == std::string::npos ? first : text.find(' ', first + 1);
  if (second == std::string::npos) {
    return false;
  }
  former.id = std::strtoull(text.c_str(), nullptr, 10);
  time = std::strtoll(text.c_str() + first + 1, nullptr, 10);
  former.fingerprint = text.substr(second + 1);
  return former.id != 0;
}

}  // namespace

Operations::Operations(Store& store, Router& router, OperationLimits limits, AuthClocks clocks,
                       std::function<void(std::uint64_t)> changed)
    : store_(store),
      router_(router),
      limits_(limits),
      clocks_(std::move(clocks)),
      changed_(std::move(changed)),
      alive_(std::make_shared<bool>(true)) {}

// Completions after the end of this object are dropped.
void Operations::store(std::vector<Change> changes, Store::Done done) {
  store_.write(std::move(changes), [alive = std::weak_ptr<bool>(alive_),
                                    done = std::move(done)](std::optional<std::string> error) {
    if (!alive.expired()) {
      done(std::move(error));
    }
  });
}

void Operations::load(const Snapshot& snapshot) {
  next_ = std::max(next_, snapshot.nextOperation);
  for (const SettingRecord& setting : snapshot.settings) {
    Key key;
    if (setting.name.compare(0, kKeyPrefix.size(), kKeyPrefix) == 0 &&
        readKey(setting.value, key.former, key.time)) {
      keys_[setting.name.substr(kKeyPrefix.size())] = key;
    }
  }
  for (const OperationRecord& unfinished : snapshot.unfinished) {
    auto record = std::make_shared<OperationRecord>(unfinished);
    record->state = kOperationInterrupted;
    record->ended = clocks_.wall();
    record->answered = record->notRun = record->unknown = 0;
    interrupted_[record->id] = record;
    recount(record, 0);
  }
}

void Operations::recount(const std::shared_ptr<OperationRecord>& record, DeviceId cursor) {
  ResultQuery query;
  query.operation = record->id;
  query.page.cursor = cursor;
  query.page.limit = kMaxPage;
  store_.readResults(query, [this, alive = std::weak_ptr<bool>(alive_),
                             record](runel::Result<Page<OperationResultRecord>> page) {
    if (alive.expired() || !page) {
      return;  // after a failure it stays "running" in the database: the next start counts again
    }
    for (const OperationResultRecord& result : page->items) {
      count(*record, result.outcome);
    }
    if (page->next != 0) {
      recount(record, page->next);
      return;
    }
    store({Save<OperationRecord>{*record}},
          [this, record](const std::optional<std::string>& error) {
            if (!error) {
              interrupted_.erase(record->id);
            }
            changed_(record->id);
          });
  });
}

std::uint64_t Operations::start(OperationWish wish, const Started& started) {
  auto operation = std::make_shared<Running>();
  OperationRecord& record = operation->record;
  record.id = next_++;
  record.time = clocks_.wall();
  record.who = wish.who;
  record.kind = wish.task.task;
  record.query = wish.query;
  record.request = wish.task.summary;
  record.state = kOperationRunning;
  record.devices = wish.devices.size();
  operation->request = Payload(std::move(wish.task.record));
  operation->steps.resize(wish.devices.size(), Step::waiting);
  for (std::size_t place = 0; place < wish.devices.size(); ++place) {
    operation->places[wish.devices[place]] = place;
  }
  operation->wish = std::move(wish);
  running_[record.id] = operation;
  if (!operation->wish.key.empty()) {
    keys_[operation->wish.key] = {{record.id, operation->wish.fingerprint}, record.time};
  }
  begin(operation, started);
  return record.id;
}

// The record and all preliminary results must be stored before the first request.
void Operations::begin(const RunningPtr& operation, const Started& started) {
  struct Progress {
    std::size_t left = 0;
    std::optional<std::string> error;
  };
  const OperationRecord& record = operation->record;
  std::vector<std::vector<Change>> chunks(1);
  chunks.back().emplace_back(Save<OperationRecord>{record});
  if (!operation->wish.key.empty()) {
    chunks.back().emplace_back(
        Save<SettingRecord>{{std::string(kKeyPrefix) + operation->wish.key,
                             keyText(record.id, record.time, operation->wish.fingerprint)}});
  }
  for (std::size_t place = 0; place < operation->wish.devices.size(); ++place) {
    if (chunks.back().size() >= kChunk) {
      chunks.emplace_back();
    }
    chunks.back().emplace_back(
        Save<OperationResultRecord>{resultOf(*operation, place, Outcome::notRun, "interrupted",
                                             "the gateway ended before the request was sent")});
  }
  auto progress = std::make_shared<Progress>();
  progress->left = chunks.size();
  for (std::vector<Change>& chunk : chunks) {
    store(std::move(chunk), [this, operation, progress,
                             started](const std::optional<std::string>& error) {
      if (error && !progress->error) {
        progress->error = error;
      }
      if (--progress->left > 0) {
        return;
      }
      if (progress->error) {
        keys_.erase(operation->wish.key);
        running_.erase(operation->record.id);
        // Some chunks may be stored. Nothing was sent, as they say.
        store({RemoveOperation{operation->record.id}}, [](const std::optional<std::string>&) {});
        started(progress->error);
        return;
      }
      operation->stored = true;
      changed_(operation->record.id);
      started(std::nullopt);
      pump(operation);
    });
  }
}

OperationResultRecord Operations::resultOf(const Running& operation, std::size_t place,
                                           Outcome outcome, std::string reason,
                                           std::string text) const {
  OperationResultRecord result;
  result.operation = operation.record.id;
  result.device = operation.wish.devices[place];
  result.time = clocks_.wall();
  result.outcome = outcomeName(outcome);
  result.reason = std::move(reason);
  result.text = std::move(text);
  return result;
}

// One write of marks at a time: what becomes free meanwhile is marked together.
void Operations::pump(const RunningPtr& operation) {
  Running& work = *operation;
  if (!work.stored || work.ended) {
    return;
  }
  if (work.cancelled || stopping_) {
    endRest(operation);
    return;
  }
  if (work.marking) {
    return;
  }
  std::vector<std::size_t> places;
  std::vector<Change> marks;
  while (work.next < work.steps.size() && work.inFlight < work.wish.parallel) {
    const std::size_t place = work.next++;
    ++work.inFlight;
    work.steps[place] = Step::marking;
    places.push_back(place);
    marks.emplace_back(
        Save<OperationResultRecord>{resultOf(work, place, Outcome::unknown, "interrupted",
                                             "the gateway ended before the device answered")});
  }
  if (places.empty()) {
    finish(operation);
    return;
  }
  work.marking = true;
  store(std::move(marks), [this, operation, places](const std::optional<std::string>& error) {
    operation->marking = false;
    if (!error) {
      send(operation, places);
      return;
    }
    for (const std::size_t place : places) {
      conclude(operation, place, resultOf(*operation, place, Outcome::notRun, "storage", *error));
    }
    pump(operation);
  });
}

void Operations::send(const RunningPtr& operation, const std::vector<std::size_t>& places) {
  for (const std::size_t place : places) {
    sendOne(operation, place);
  }
  pump(operation);
}

void Operations::sendOne(const RunningPtr& operation, std::size_t place) {
  Running& work = *operation;
  const DeviceId device = work.wish.devices[place];
  if (work.cancelled || stopping_) {
    work.cut = true;
    conclude(operation, place,
             resultOf(work, place, Outcome::notRun, work.cancelled ? "cancelled" : "interrupted",
                      "the operation ended before the request was sent"));
    return;
  }
  if (!work.wish.permit->may(work.wish.task.kind, device)) {
    conclude(operation, place,
             resultOf(work, place, Outcome::notRun, "refused",
                      "the token may not use this device any more"));
    return;
  }
  work.steps[place] = Step::sent;
  Call call;
  call.device = device;
  call.request = work.request;
  call.deadline = clocks_.steady() + work.wish.task.deadline;
  call.label = work.wish.who;
  router_.send(std::move(call), [this, alive = std::weak_ptr<bool>(alive_), operation,
                                 place](const Answer& answer) {
    if (alive.expired()) {
      return;
    }
    OperationResultRecord result =
        resultOf(*operation, place, answer.outcome,
                 answer.reason == Reason::none ? "" : codeOf(answer.reason), answer.text);
    if (answer.outcome == Outcome::answered) {
      if (std::optional<TaskReply> reply = parseReply(answer.payload, limits_.resultBytes)) {
        result.text = numbersOf(*reply);
        result.output = std::move(reply->output);
      }
    }
    conclude(operation, place, std::move(result));
    pump(operation);
  });
}

void Operations::conclude(const RunningPtr& operation, std::size_t place,
                          OperationResultRecord result) {
  operation->steps[place] = Step::done;
  --operation->inFlight;
  count(operation->record, result.outcome);
  // A result that cannot be stored stays at what it was before, which is less exact and never
  // wrong.
  store({Save<OperationResultRecord>{std::move(result)}}, [](const std::optional<std::string>&) {});
}

// Gives all devices that were not reached their results.
void Operations::endRest(const RunningPtr& operation) {
  Running& work = *operation;
  std::vector<Change> changes;
  while (work.next < work.steps.size()) {
    const std::size_t place = work.next++;
    work.steps[place] = Step::done;
    ++work.record.notRun;
    work.cut = true;
    if (work.cancelled) {  // otherwise the preliminary result is right
      changes.emplace_back(Save<OperationResultRecord>{
          resultOf(work, place, Outcome::notRun, "cancelled", "the operation was cancelled")});
    }
    if (changes.size() >= kChunk) {
      store(std::move(changes), [](const std::optional<std::string>&) {});
      changes.clear();
    }
  }
  if (!changes.empty()) {
    store(std::move(changes), [](const std::optional<std::string>&) {});
  }
  finish(operation);
}

void Operations::finish(const RunningPtr& operation) {
  Running& work = *operation;
  if (work.inFlight > 0 || work.ended) {
    return;
  }
  work.ended = true;
  work.record.ended = clocks_.wall();
  work.record.state = kOperationDone;
  if (work.cut) {
    work.record.state = work.cancelled ? kOperationCancelled : kOperationInterrupted;
  }
  saveEnd(operation);
}

void Operations::saveEnd(const RunningPtr& operation) {
  operation->saving = true;
  store({Save<OperationRecord>{operation->record}},
        [this, operation](const std::optional<std::string>& error) {
          operation->saving = false;
          if (!error) {
            running_.erase(operation->record.id);
            changed_(operation->record.id);
          }
        });
}

const OperationRecord* Operations::find(std::uint64_t id) const {
  const auto found = running_.find(id);
  if (found != running_.end()) {
    return found->second->stored ? &found->second->record : nullptr;
  }
  const auto interrupted = interrupted_.find(id);
  return interrupted == interrupted_.end() ? nullptr : interrupted->second.get();
}

bool Operations::isPending(std::uint64_t id, DeviceId device) const {
  const auto found = running_.find(id);
  if (found == running_.end()) {
    return false;
  }
  const auto place = found->second->places.find(device);
  return place != found->second->places.end() && found->second->steps[place->second] != Step::done;
}

bool Operations::cancel(std::uint64_t id) {
  const auto found = running_.find(id);
  if (found == running_.end() || found->second->ended) {
    return false;
  }
  const RunningPtr operation = found->second;
  operation->cancelled = true;
  operation->record.state = kOperationCancelling;
  pump(operation);
  return true;
}

const Operations::Former* Operations::findKey(const std::string& key) const {
  const auto found = keys_.find(key);
  return found == keys_.end() ? nullptr : &found->second.former;
}

void Operations::stop() {
  stopping_ = true;
  const std::map<std::uint64_t, RunningPtr> all = running_;
  for (const auto& [id, operation] : all) {
    pump(operation);
  }
}

void Operations::tick() {
  const std::int64_t now = clocks_.wall();
  std::vector<Change> changes;
  for (auto key = keys_.begin(); key != keys_.end();) {
    if (std::abs(now - key->second.time) <= limits_.keyLifetime) {
      ++key;
      continue;
    }
    changes.emplace_back(RemoveSetting{std::string(kKeyPrefix) + key->first});
    key = keys_.erase(key);
  }
  if (!changes.empty()) {
    store(std::move(changes), [](const std::optional<std::string>&) {});
  }
  for (const auto& [id, operation] : running_) {
    if (operation->ended && !operation->saving) {
      saveEnd(operation);
    }
  }
}

}  // namespace runelgw
