// SPDX-License-Identifier: Apache-2.0
#include "gateway/link/device_queue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

namespace runelgw {
namespace {

using runel::Clock;
using runel::Milliseconds;
using runel::UserRequest;

// So many requests are passed on together: the next one is there when a device has answered.
constexpr std::size_t kMostPassed = 8;
constexpr std::uint64_t kMostBytesPassed = 8388608;
// Without a byte for so long, a request that waits for more of them is late.
constexpr Milliseconds kStillMoving{10000};
// From this size on, a request is read part by part while it is sent.
constexpr std::uint64_t kReadLate = 65536;

std::int64_t wallClock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<Milliseconds>(now).count();
}

UserRequest requestOf(const Payload& payload) {
  if (payload.isInMemory() && payload.size() < kReadLate) {
    return UserRequest(payload.bytes());
  }
  return {static_cast<std::size_t>(payload.size()),
          [payload](std::uint64_t offset, std::size_t count, std::string& bytes) {
            if (!payload.read(offset, count, bytes)) {
              bytes.clear();
            }
          }};
}

Answer notRun(Reason reason, std::string text) {
  return {Outcome::notRun, reason, std::move(text), {}};
}

Answer unknown(Reason reason, std::string text) {
  return {Outcome::unknown, reason, std::move(text), {}};
}

}  // namespace

DeviceQueue::DeviceQueue(Context context, Events events)
    : context_(std::move(context)), events_(std::move(events)) {}

DeviceQueue::~DeviceQueue() {
  context_.loop.cancel(timer_);
}

void DeviceQueue::connect(const Attach& attach) {
  auto user = attach({[this](const runel::Error& error) { lost(error); }, nullptr});
  if (user) {
    user_ = *std::move(user);
    reason_ = Reason::lost;
    pump();
  }
}

void DeviceQueue::disconnect(Reason reason, const std::string& text) {
  reason_ = reason;
  why_ = text;
  const auto user = std::move(user_);
  for (auto next = entries_.begin(); next != entries_.end();) {
    const auto entry = next++;
    const std::uint64_t number = std::exchange(entry->number, 0);
    endOrKeep(entry, number != 0 && user && !user->withdraw(number));
  }
  checkIdle();
}

void DeviceQueue::stop(Reason reason, const std::string& text) {
  disconnect(reason, text);
}

void DeviceQueue::add(CallId id, Call call, RequestHead head, Router::Done done) {
  Entry& entry = entries_.emplace_back();
  entry.id = id;
  entry.call = std::move(call);
  entry.head = std::move(head);
  entry.done = std::move(done);
  pump();
}

void DeviceQueue::cancel(CallId id) {
  const auto entry = find(id);
  if (entry == entries_.end()) {
    return;
  }
  entry->done = nullptr;
  if (entry->number == 0 || user_->withdraw(entry->number)) {
    finish(entry, notRun(Reason::none, ""));
    pump();
    checkIdle();
  }
}

DeviceQueue::Entries::iterator DeviceQueue::find(CallId id) {
  return std::find_if(entries_.begin(), entries_.end(),
                      [id](const Entry& entry) { return entry.id == id; });
}

QueueState DeviceQueue::state() const {
  QueueState state;
  state.waiting = entries_.size();
  for (const Entry& entry : entries_) {
    state.bytes += entry.call.request.size();
  }
  if (!entries_.empty() && entries_.front().number != 0) {
    const Entry& current = entries_.front();
    state.busyWith = current.head.known ? current.head.task : "a request";
    state.busyWith += current.call.label.empty() ? "" : " by " + current.call.label;
    state.since = current.since;
    state.current = current.id;
    state.progress = user_->lastProgress();
  }
  return state;
}

// Passing on.

void DeviceQueue::pump() {
  for (Entry& entry : entries_) {
    if (user_ && entry.number == 0 && mayPass(entry)) {
      pass(entry);
    }
    if (entry.number == 0) {
      break;
    }
  }
  beginTurn();
  arm();
}

// What takes long is passed on alone: what waits behind it can still be taken back, so that its
// outcome stays known.
bool DeviceQueue::mayPass(const Entry& next) const {
  std::size_t count = 0;
  std::uint64_t bytes = next.call.request.size();
  for (const Entry& entry : entries_) {
    if (entry.number == 0) {
      break;
    }
    if (!entry.done || entry.head.isSlow() || next.head.isSlow()) {
      return false;
    }
    ++count;
    bytes += entry.call.request.size();
  }
  return count == 0 || (count < kMostPassed && bytes <= kMostBytesPassed);
}

void DeviceQueue::pass(Entry& entry) {
  const CallId id = entry.id;
  const auto large = std::make_shared<LargeAnswer>();
  UserRequest request = requestOf(entry.call.request);
  request.onAnswer([this, id](std::string payload) { answered(id, std::move(payload)); })
      .onFailed([this, id](const runel::Error& error) { failed(id, error); })
      .setLongAnswers(kLargePayload, [spool = context_.spool, large](std::size_t size) {
        auto begun = spool->begin(size);
        if (begun) {
          large->writer = *std::move(begun);
        } else {
          large->problem = begun.error().text();
        }
        return [large](std::string_view part) {
          if (large->writer && !large->writer->add(part)) {
            large->problem = std::strerror(errno);
            large->writer.reset();
          }
        };
      });
  if (!entry.head.answered) {
    request.onSent([this, id] { sent(id); });
  }
  entry.large = large;
  entry.number = user_->send(std::move(request));
}

// The first request is the one that the device works on.
void DeviceQueue::beginTurn() {
  if (!entries_.empty() && entries_.front().number != 0 && entries_.front().since == 0) {
    entries_.front().turn = Clock::now();
    entries_.front().since = wallClock();
  }
}

// Ends.

Answer DeviceQueue::answerOf(Entry& entry, std::string&& payload) const {
  LargeAnswer& large = *entry.large;
  if (!large.problem.empty()) {
    return unknown(Reason::storage, "the answer cannot be kept: " + large.problem);
  }
  Answer answer;
  answer.outcome = Outcome::answered;
  answer.payload = large.writer ? large.writer->finish() : Payload(std::move(payload));
  return answer;
}

void DeviceQueue::answered(CallId id, std::string&& payload) {
  const auto entry = find(id);
  if (entry == entries_.end()) {
    return;
  }
  finish(entry, answerOf(*entry, std::move(payload)));
  pump();
  checkIdle();
}

// A request without an answer is done when it is sent.
void DeviceQueue::sent(CallId id) {
  Answer answer;
  answer.outcome = Outcome::answered;
  finish(find(id), std::move(answer));
  pump();
  checkIdle();
}

// The connection has ended. `lost` follows.
void DeviceQueue::failed(CallId id, const runel::Error& error) {
  const auto entry = find(id);
  entry->number = 0;
  why_ = error.text();
  endOrKeep(entry, error.outcome() != runel::Outcome::notSent);
}

void DeviceQueue::lost(const runel::Error& error) {
  disconnect(Reason::lost, error.text());
}

// What may be repeated waits for the next connection of the device.
void DeviceQueue::endOrKeep(Entries::iterator entry, bool mayHaveRun) {
  const Call& call = entry->call;
  entry->since = 0;
  if (entry->done && reason_ == Reason::lost && call.repeat && entry->head.repeatable &&
      call.deadline != Clock::time_point::max()) {
    if (mayHaveRun) {
      entry->mayHaveRun = true;
      events_.retried();
    }
    return;
  }
  finish(entry, mayHaveRun ? unknown(reason_, why_) : notRun(reason_, why_));
}

void DeviceQueue::finish(Entries::iterator entry, Answer answer) {
  tell(*entry, std::move(answer));
  entries_.erase(entry);
}

// Also tells of a cancelled request, which is then known to be over.
void DeviceQueue::tell(Entry& entry, Answer answer) {
  if (entry.mayHaveRun && answer.outcome == Outcome::notRun) {
    answer = unknown(answer.reason,
                     "the connection was lost after the request was sent, and then " + answer.text);
  }
  events_.done(entry.id, entry.head, std::exchange(entry.done, nullptr), std::move(answer));
}

void DeviceQueue::checkIdle() {
  if (entries_.empty()) {
    events_.idle();
  }
}

// Times.

std::optional<Clock::time_point> DeviceQueue::silentAt() const {
  if (!user_ || entries_.empty() || entries_.front().number == 0) {
    return std::nullopt;
  }
  const Entry& current = entries_.front();
  if (current.silent || !current.head.extraTime) {
    return std::nullopt;
  }
  return std::max(user_->lastProgress(), current.turn) + context_.ioTimeout +
         *current.head.extraTime;
}

// A timer that is too early only makes `wake` set it again.
void DeviceQueue::arm() {
  std::optional<Clock::time_point> due = silentAt();
  for (const Entry& entry : entries_) {
    if (entry.done && entry.call.deadline != Clock::time_point::max()) {
      due = due ? std::min(*due, entry.call.deadline) : entry.call.deadline;
    }
  }
  if (!due || (timer_.id != 0 && timer_.due <= *due)) {
    return;
  }
  context_.loop.cancel(timer_);
  const auto left = std::chrono::ceil<Milliseconds>(*due - Clock::now());
  timer_ = context_.loop.after(std::max(left, Milliseconds(0)), [this] { wake(); });
}

void DeviceQueue::wake() {
  timer_ = runel::Timer();
  const Clock::time_point now = Clock::now();
  for (auto next = entries_.begin(); next != entries_.end();) {
    const auto entry = next++;
    if (entry->done && entry->call.deadline <= now) {
      expire(entry);
    }
  }
  const auto silent = silentAt();
  if (silent && *silent <= now) {
    endSilence();
  }
  pump();
  checkIdle();
}

// Whether bytes of the current request move. Then its deadline is later.
bool DeviceQueue::postpone(Entry& entry) const {
  if (!entry.call.deadlineWaits || entry.number == 0 || entry.since == 0 ||
      user_->lastProgress() <= entry.turn) {
    return false;
  }
  const Clock::time_point later = user_->lastProgress() + kStillMoving;
  if (later <= entry.call.deadline) {
    return false;
  }
  entry.call.deadline = later;
  return true;
}

void DeviceQueue::expire(Entries::iterator entry) {
  if (postpone(*entry)) {
    return;
  }
  if (entry->number == 0 || user_->withdraw(entry->number)) {
    finish(entry, notRun(Reason::deadline, "the deadline passed before the request was sent"));
  } else {
    tell(*entry, unknown(Reason::deadline, "the deadline passed before the answer"));
  }
}

// The answers may still come: the connection stays, and nothing else is passed on before them.
void DeviceQueue::endSilence() {
  for (auto next = entries_.begin(); next != entries_.end() && next->number != 0;) {
    const auto entry = next++;
    if (user_->withdraw(entry->number)) {
      finish(entry, notRun(Reason::deadline, "the device takes no data within the I/O timeout"));
    } else {
      entry->silent = true;
      if (entry->done) {
        tell(*entry, unknown(Reason::deadline, "no answer within the I/O timeout"));
      }
    }
  }
  user_->check();
}

}  // namespace runelgw
