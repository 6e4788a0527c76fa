// SPDX-License-Identifier: Apache-2.0
#include "client/io/device.h"

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

}  // namespace

Device::Device(Loop& loop, Target target, Limits limits)
    : loop_(loop), target_(std::move(target)), limits_(std::move(limits)) {}

Device::~Device() {
  abandon();
}

void Device::ask(const Request& request, ReplyHandler handler) {
  askRaw(encode(request), request, std::move(handler));
}

void Device::askRaw(std::string payload, const Request& like, ReplyHandler handler) {
  if (dryRun_) {
    dryRun_(target_, payload);
    return;
  }
  pending_.push_back({std::move(handler), like.replyLimit, like.extraTimeout, like.answered});
  if (disorder_) {
    loop_.next([this, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired() && disorder_) {
        close(*std::exchange(disorder_, std::nullopt));
      }
    });
    return;
  }
  if (channel_) {
    send(pending_.back(), std::move(payload));
  } else {
    early_.push_back(std::move(payload));
    connect();
  }
  if (pending_.size() == 1) {
    expectFront();
  }
}

void Device::connect() {
  if (connector_) {
    return;
  }
  connector_ = std::make_unique<Connector>(
      loop_, target_, limits_.masterSocket, limits_.connect,
      [this](zell::UniqueFd socket, std::optional<Error> error) {
        // The connector is still executing this call: destroy it in the next turn.
        auto held = std::make_shared<std::unique_ptr<Connector>>(std::move(connector_));
        loop_.next([held] { held->reset(); });
        if (error) {
          close(*error);
        } else {
          connected(std::move(socket));
        }
      });
}

void Device::connected(zell::UniqueFd socket) {
  channel_ = std::make_unique<Channel>(
      loop_, std::move(socket),
      Channel::Handlers{[this](std::string&& payload) { take(std::move(payload)); },
                        [this](const Error& error) { ended(error); }, [this] { progress(); }});
  for (Pending& pending : pending_) {
    send(pending, std::move(early_.front()));
    early_.pop_front();
  }
  expectFront();
}

// The answer to the oldest request is due next: apply its limits.
void Device::expectFront() {
  lastProgress_ = Clock::now();
  if (channel_ && !pending_.empty()) {
    channel_->limitMessages(pending_.front().replyLimit);
    watchSilence();
  }
}

// A protocol error of an idle device is reported to the next request.
void Device::ended(const Error& error) {
  if (pending_.empty() && error.fault == Fault::protocol) {
    disorder_ = error;
  }
  close(error);
}

void Device::send(Pending& pending, std::string&& payload) {
  channel_->send(std::move(payload));
  pending.end = channel_->everQueued();
}

// An answer cannot belong to a request that is not sent completely.
bool Device::frontIsOut() const {
  return !pending_.empty() && pending_.front().end + channel_->queued() <= channel_->everQueued();
}

void Device::take(std::string&& payload) {
  if (!frontIsOut()) {
    ended({Fault::protocol, "answer without a request", "", 0});
    return;
  }
  if (tap_) {
    tap_(payload);
  }
  std::optional<Reply> reply = decodeReply(std::move(payload));
  if (!reply || !pending_.front().answered) {
    close({Fault::protocol, "malformed answer: not a task record", "", 0});
    return;
  }
  answer(std::move(*reply));
}

void Device::answer(Reply reply) {
  const ReplyHandler handler = std::move(pending_.front().handler);
  pending_.pop_front();
  expectFront();
  handler(std::move(reply));
}

void Device::progress() {
  lastProgress_ = Clock::now();
  finishUnanswered();
}

// "restart" is complete when it is sent: it has no answer.
void Device::finishUnanswered() {
  while (channel_ && channel_->queued() == 0 && !pending_.empty() && !pending_.front().answered) {
    const std::weak_ptr<bool> alive = alive_;
    answer(Reply());
    if (alive.expired()) {
      return;
    }
  }
}

void Device::watchSilence() {
  loop_.cancel(silence_);
  const Pending& front = pending_.front();
  if (!front.extraTimeout) {
    return;
  }
  const Milliseconds timeout = limits_.silence + *front.extraTimeout;
  const auto passed = std::chrono::duration_cast<Milliseconds>(Clock::now() - lastProgress_);
  silence_ = loop_.after(timeout - passed, [this] { checkSilence(); });
}

void Device::checkSilence() {
  const Pending& front = pending_.front();
  const Milliseconds timeout = limits_.silence + front.extraTimeout.value_or(Milliseconds(0));
  if (Clock::now() - lastProgress_ < timeout) {
    watchSilence();
    return;
  }
  // Answers arrive in order, so all later ones are late too.
  close({Fault::timedOut, "no answer for " + seconds(timeout),
         "the device may be busy: check with runelctl ping, or use a larger --timeout", ETIMEDOUT});
}

void Device::close(const Error& why) {
  std::deque<Pending> failed;
  failed.swap(pending_);
  abandon();
  const std::weak_ptr<bool> alive = alive_;
  for (const Pending& pending : failed) {
    if (alive.expired()) {
      return;
    }
    Reply reply;
    reply.broken = why;
    pending.handler(std::move(reply));
  }
}

void Device::abandon() {
  loop_.cancel(silence_);
  connector_.reset();
  channel_.reset();
  early_.clear();
  pending_.clear();
}

}  // namespace runel
