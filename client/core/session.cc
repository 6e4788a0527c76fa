// SPDX-License-Identifier: Apache-2.0
#include "client/core/session.h"

#include <algorithm>
#include <cerrno>
#include <utility>

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
bool nothingRan(const Reply& reply) {
  if (reply.ok()) {
    return false;
  }
  const Error error = reply.error();
  return error.cause() == Cause::refused || error.transient();
}

}  // namespace

void Session::add(const Request& like, ReplyHandler handler, Time now, bool raw) {
  if (pending_.empty()) {
    lastProgress_ = now;
  }
  pending_.push_back({std::move(handler), like.replyLimit(), like.extraTimeout(), like.answered(),
                      !raw && like.repeatable(), std::nullopt});
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

void Session::complete(Reply reply, Time now) {
  ++everSent_;
  everUnrepeatable_ += pending_.front().repeatable || nothingRan(reply) ? 0 : 1;
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

std::size_t Session::unrepeatable() const {
  return everUnrepeatable_ + static_cast<std::size_t>(std::count_if(
                                 pending_.begin(), pending_.end(), [this](const Pending& pending) {
                                   return isSent(pending) && !pending.repeatable;
                                 }));
}

// Keeps the counts of the pending requests, which end now.
void Session::count() {
  everSent_ = sent();
  everUnrepeatable_ = unrepeatable();
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
