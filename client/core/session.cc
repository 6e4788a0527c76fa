// SPDX-License-Identifier: Apache-2.0
#include "client/core/session.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "protocol/task_table.h"

namespace runel {
namespace {

std::string seconds(Milliseconds time) {
  const auto tenths = time.count() / 100;
  std::string text = std::to_string(tenths / 10);
  if (tenths % 10 != 0) {
    text += "." + std::to_string(tenths % 10);
  }
  return text + " s";
}

// Whether the task has not run: it was refused, or the device lacked what it needs to start it.
bool nothingRan(const Reply& reply, bool mayRunInPart) {
  if (reply.ok()) {
    return false;
  }
  const Error error = reply.error();
  return error.cause() == Cause::refused ||
         (error.transient() && !(mayRunInPart && error.number() == EAGAIN));
}

// An "append" to a FIFO whose reader stops in the middle fails with EAGAIN.
bool mayRunInPart(const Request& request) {
  return !request.words().empty() && request.words().front() == "append";
}

// A program in the background is answered at once.
std::optional<LongTask> longTaskOf(const Request& request) {
  const std::vector<std::string>& words = request.words();
  const zell::TaskTraits* const traits = words.empty() ? nullptr : zell::findTask(words.front());
  if (traits == nullptr || !traits->unbounded || request.execLimit() < 0) {
    return std::nullopt;
  }
  return LongTask{words.front(), words.size() > 1 ? words[1] : "",
                  std::chrono::seconds(request.execLimit()), Milliseconds(0)};
}

}  // namespace

void Session::add(const Request& like, ReplyHandler handler, Time now, bool raw) {
  if (pending_.empty()) {
    lastProgress_ = now;
  }
  pending_.push_back({std::move(handler), like.replyLimit(), like.extraTimeout(),
                      events_ || like.answered(), !raw && like.repeatable(), mayRunInPart(like),
                      raw ? std::nullopt : longTaskOf(like), std::nullopt});
}

void Session::queued(std::uint64_t end) {
  pending_[queuedCount_++].end = end;
}

bool Session::isSent(const Pending& pending) const {
  return pending.end && *pending.end <= sent_;
}

void Session::progress(std::uint64_t sent, Time now) {
  sent_ = sent;
  lastProgress_ = now;
  // "restart" is complete when it is sent: it has no reply.
  while (!pending_.empty() && !pending_.front().answered && isSent(pending_.front())) {
    complete(Reply(), now);
  }
}

// A reply cannot belong to a request that is not sent completely.
std::optional<Error> Session::receive(std::string&& payload, Time now) {
  if (const auto event = events_ ? LinkEvent::parse(payload) : std::nullopt) {
    return receiveEvent(*event, now);
  }
  if (pending_.empty() || !isSent(pending_.front())) {
    return Error(Kind::link, Cause::protocol, "answer without a request");
  }
  std::optional<Reply> reply = Reply::decode(std::move(payload));
  if (!reply || !pending_.front().answered) {
    return Error(Kind::link, Cause::protocol, "malformed answer: not a task record");
  }
  complete(std::move(*reply), now);
  return std::nullopt;
}

// An event may come before the rest of its request is sent.
std::optional<Error> Session::receiveEvent(const LinkEvent& event, Time now) {
  if (event.about == LinkEvent::About::progress) {
    lastProgress_ = now;
    return std::nullopt;
  }
  if (queuedCount_ == 0) {
    return Error(Kind::link, Cause::protocol, "answer without a request");
  }
  if (event.about == LinkEvent::About::sent) {
    complete(Reply(), now);
  } else {
    failOldest(event.error, now);
  }
  return std::nullopt;
}

void Session::failOldest(const Error& why, Time now) {
  const Pending& front = pending_.front();
  if (why.outcome() == Outcome::unknown) {
    ++everSent_;
    everUnrepeatable_ += front.repeatable ? 0 : 1;
    everInDoubt_ += front.repeatable ? 0 : 1;
  }
  completed_.push_back({std::move(pending_.front().handler), why});
  pending_.pop_front();
  --queuedCount_;
  lastProgress_ = now;
}

void Session::complete(Reply reply, Time now) {
  ++everSent_;
  const Pending& front = pending_.front();
  everUnrepeatable_ += front.repeatable || nothingRan(reply, front.mayRunInPart) ? 0 : 1;
  completed_.push_back({std::move(pending_.front().handler), std::move(reply)});
  pending_.pop_front();
  --queuedCount_;
  lastProgress_ = now;
}

std::size_t Session::sent() const {
  return everSent_ + static_cast<std::size_t>(
                         std::count_if(pending_.begin(), pending_.end(),
                                       [this](const Pending& pending) { return isSent(pending); }));
}

std::size_t Session::pendingInDoubt() const {
  return static_cast<std::size_t>(std::count_if(
      pending_.begin(), pending_.end(),
      [this](const Pending& pending) { return isSent(pending) && !pending.repeatable; }));
}

std::size_t Session::unrepeatable() const {
  return everUnrepeatable_ + pendingInDoubt();
}

std::size_t Session::inDoubt() const {
  return everInDoubt_ + pendingInDoubt();
}

// Keeps the counts of the pending requests, which end now.
void Session::count() {
  everSent_ = sent();
  everUnrepeatable_ = unrepeatable();
  everInDoubt_ = inDoubt();
}

Milliseconds Session::silence(Time now) const {
  return queuedCount_ == 0 ? Milliseconds(0)
                           : std::chrono::duration_cast<Milliseconds>(now - lastProgress_);
}

std::optional<LongTask> Session::longTask(Time now) const {
  for (const Pending& pending : pending_) {
    if (!isSent(pending)) {
      break;
    }
    if (pending.longTask) {
      LongTask task = *pending.longTask;
      task.waiting = silence(now);
      return task;
    }
  }
  return std::nullopt;
}

void Session::fail(const Error& why) {
  count();
  const Error unknown = why.with(Outcome::unknown);
  const Error notSent = why.with(Outcome::notSent);
  for (Pending& pending : pending_) {
    completed_.push_back({std::move(pending.handler), isSent(pending) ? unknown : notSent});
  }
  pending_.clear();
  queuedCount_ = 0;
  sent_ = 0;
}

void Session::clear() {
  count();
  pending_.clear();
  completed_.clear();
  queuedCount_ = 0;
  sent_ = 0;
}

std::optional<Session::Completion> Session::nextCompletion() {
  if (completed_.empty()) {
    return std::nullopt;
  }
  Completion next = std::move(completed_.front());
  completed_.pop_front();
  return next;
}

std::optional<Session::Time> Session::deadline() const {
  if (queuedCount_ == 0 || !pending_.front().extraTimeout) {
    return std::nullopt;
  }
  return lastProgress_ + timeout_ + *pending_.front().extraTimeout;
}

std::optional<Error> Session::expired(Time now) const {
  const std::optional<Time> due = deadline();
  if (!due || now < *due) {
    return std::nullopt;
  }
  // Replies arrive in order, so all later ones are late too.
  return Error(Kind::timeout, Cause::silence,
               "no answer for " + seconds(timeout_ + *pending_.front().extraTimeout), ETIMEDOUT);
}

std::size_t Session::replyLimit() const {
  return pending_.empty() ? 0 : pending_.front().replyLimit;
}

}  // namespace runel
