// SPDX-License-Identifier: Apache-2.0
#include "client/fleet/fleet_work.h"

#include <cerrno>
#include <set>
#include <utility>

#include "client/core/retry_pause.h"
#include "client/fleet/clean_up.h"
#include "client/fleet/waves.h"

namespace runel {
inline namespace v1 {
namespace {

// Equal for entries that mean the same device.
std::string keyOf(const FleetEntry& entry) {
  return entry.address ? entry.address->text() : "?" + entry.name;
}

}  // namespace

// One device of the fleet.
struct FleetWork::Member {
  FleetEntry entry;
  std::size_t index;
  std::unique_ptr<AsyncDevice> own{};
  AsyncDevice* device = nullptr;
  std::unique_ptr<FleetJob> job{};
  std::optional<Result<Reply>> result{};
  std::unique_ptr<CleanUp> cleaner{};
  Timer deadline{};
  Timer pause{};
  int attempts = 0;
  bool failed = false;
  // The counts of the device at the start of the attempt: a lent one has served others before.
  std::size_t sent = 0;
  std::size_t unrepeatable = 0;
};

FleetWork::FleetWork(Loop& loop, std::vector<FleetEntry> entries, const FleetOptions& options)
    : loop_(loop), options_(*options.data_) {
  std::set<std::string> known;
  for (std::size_t index = 0; index < entries.size(); ++index) {
    if (known.insert(keyOf(entries[index])).second) {
      members_.push_back(std::make_unique<Member>(Member{std::move(entries[index]), index}));
    }
  }
  (void)parseWaves(options_.waves, members_.size(), waves_);  // the text was checked
  waveEnd_ = waves_.empty() ? 0 : waves_.front();
}

FleetWork::~FleetWork() {
  for (const auto& member : members_) {
    drop(*member);
  }
}

// Calls @p call in the next step, unless this object is destroyed before.
void FleetWork::later(std::function<void()> call) {
  loop_.next([call = std::move(call), alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) {
      call();
    }
  });
}

void FleetWork::run(AsyncFleet::MakeJob make, AsyncFleet::Handlers handlers) {
  make_ = std::move(make);
  handlers_ = std::move(handlers);
  const std::weak_ptr<bool> alive = alive_;
  startSome();
  if (!alive.expired() && running_ == 0) {
    later([this] { endAllIfOver(); });
  }
}

bool FleetWork::stopEarly() const {
  return stopping_ || (options_.failFast && failed_ > 0);
}

// A job that starts may destroy this object.
void FleetWork::startSome() {
  const std::weak_ptr<bool> alive = alive_;
  while (!alive.expired() && running_ < options_.parallel && next_ < waveEnd_ && !stopEarly()) {
    ++running_;
    start(*members_[next_++]);
  }
}

void FleetWork::start(Member& member) {
  member.result.reset();
  if (!member.entry.address) {
    end(member, member.entry.address.error());
    return;
  }
  ++member.attempts;
  connect(member);
  arm(member);
  member.job = make_({*member.device, member.index, member.attempts,
                      [this, &member, number = member.attempts,
                       alive = std::weak_ptr<bool>(alive_)](Result<Reply> result) {
                        if (!alive.expired() && number == member.attempts) {
                          end(member, std::move(result));
                        }
                      }});
  member.job->start();
}

void FleetWork::connect(Member& member) {
  const Address& address = *member.entry.address;
  if (lent_ != nullptr && lent_->address() == address) {
    member.device = lent_;
  } else {
    member.own = std::make_unique<AsyncDevice>(loop_, address, options_.deviceAt(member.index));
    member.device = member.own.get();
  }
  member.sent = member.device->sent();
  member.unrepeatable = member.device->unrepeatable();
}

void FleetWork::arm(Member& member) {
  if (const std::optional<Milliseconds>& deadline = options_.deadlineAt(member.index)) {
    member.deadline = loop_.after(*deadline, [this, &member] {
      endAll(member, Error(Kind::timeout, Cause::deadline, "deadline exceeded", ETIMEDOUT));
    });
  }
}

// The first end of an attempt counts. The calling job is still on the stack: destroy it in the next
// step.
void FleetWork::end(Member& member, Result<Reply> result) {
  if (!member.result) {
    member.result = std::move(result);
    later([this, &member] { settle(member); });
  }
}

// Ends the attempt from outside: the job does not say what has become of its requests.
void FleetWork::endAll(Member& member, const Error& error) {
  const bool sent = member.device->sent() > member.sent;
  end(member, error.with(sent ? Outcome::unknown : Outcome::notSent));
}

bool FleetWork::safe(const Member& member) const {
  return member.device->unrepeatable() == member.unrepeatable;
}

bool FleetWork::again(const Member& member) const {
  const bool may = member.job->mayRepeat(member.result->error(), safe(member));
  return may && member.attempts <= options_.deviceAt(member.index).retries() && !stopping_;
}

void FleetWork::settle(Member& member) {
  const bool ended = !member.result->ok() && member.job;
  const bool repeat = ended && again(member);
  std::optional<Request> rest = ended ? member.job->cleanUp() : std::nullopt;
  drop(member);
  if (repeat) {
    pause(member);
  } else if (rest) {
    cleanUp(member, std::move(*rest));
  } else {
    conclude(member);
  }
}

void FleetWork::pause(Member& member) {
  member.pause = loop_.after(
      retryPause(options_.deviceAt(member.index).retryPause(), member.attempts), [this, &member] {
        member.pause = Timer();
        start(member);
      });
}

void FleetWork::drop(Member& member) {
  loop_.cancel(member.deadline);
  loop_.cancel(member.pause);
  member.cleaner.reset();
  if (member.device != nullptr && member.device->pending() > 0) {
    member.device->abandon();  // its handlers refer to the job
  }
  member.job.reset();
  member.own.reset();
  member.device = nullptr;
}

void FleetWork::cleanUp(Member& member, Request request) {
  member.cleaner =
      std::make_unique<CleanUp>(loop_, *member.entry.address, options_.deviceAt(member.index),
                                std::move(request), [this, &member] {
                                  later([this, &member] {
                                    if (member.cleaner) {
                                      member.cleaner.reset();
                                      conclude(member);
                                    }
                                  });
                                });
}

void FleetWork::conclude(Member& member) {
  --running_;
  member.failed = !member.result->ok();
  failed_ += member.failed ? 1 : 0;
  const std::shared_ptr<FleetReport::Data> data = data_;
  data->results.push_back(
      {member.entry.name, std::move(*member.result), member.attempts, member.index});
  const std::weak_ptr<bool> alive = alive_;
  if (const auto finished = handlers_.finished) {
    finished(data->results.back());
  }
  if (!alive.expired() && running_ == 0 && next_ == waveEnd_) {
    endWave();
  }
  if (!alive.expired()) {
    startSome();
  }
  if (!alive.expired()) {
    endAllIfOver();
  }
}

// Starts the next wave unless too many devices have failed.
void FleetWork::endWave() {
  if (wave_ + 1 >= waves_.size()) {
    return;
  }
  const bool stopped = failed_ > options_.maxFailures;
  ++wave_;
  waveEnd_ += stopped ? 0 : waves_[wave_];
  if (const auto ended = handlers_.waveEnded) {
    ended(wave_, failed_, stopped);
  }
}

void FleetWork::endAllIfOver() {
  if (running_ > 0 || (next_ < waveEnd_ && !stopEarly())) {
    return;
  }
  if (const auto done = std::exchange(handlers_, {}).done) {
    done(report());
  }
}

FleetReport FleetWork::report() {
  for (std::size_t place = 0; place < members_.size(); ++place) {
    const Member& member = *members_[place];
    if (place >= next_) {
      data_->skipped.push_back(member.entry.name);
    } else if (member.failed) {
      data_->failed.push_back(member.entry.name);
    }
  }
  return FleetReport(data_);
}

// A member that waits for its next attempt ends with the result of the last one.
void FleetWork::endPause(Member& member) {
  if (member.pause.id != 0) {
    loop_.cancel(member.pause);
    later([this, &member] { settle(member); });
  }
}

void FleetWork::startNoFurther() {
  stopping_ = true;
  for (const auto& member : members_) {
    endPause(*member);
  }
}

void FleetWork::cancel() {
  stopping_ = true;
  const Error error(Kind::local, Cause::cancelled, "cancelled");
  for (const auto& member : members_) {
    if (member->cleaner) {
      // The second call: do not wait for the clean-up request.
      member->cleaner.reset();
      later([this, held = member.get()] { conclude(*held); });
    } else if (member->device != nullptr) {
      endAll(*member, error);
    } else {
      endPause(*member);
    }
  }
}

}  // namespace v1
}  // namespace runel
