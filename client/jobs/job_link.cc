// SPDX-License-Identifier: Apache-2.0
#include "client/jobs/job_link.h"

#include <algorithm>
#include <utility>

#include "client/core/retry_pause.h"

namespace runel {
namespace {

constexpr Milliseconds kLongestPause{10000};

// Whether another connection may do better.
bool isLoss(const Error& error) {
  return (error.kind() == Kind::link || error.kind() == Kind::timeout) &&
         error.cause() != Cause::protocol && error.cause() != Cause::wrongPeer;
}

}  // namespace

JobLink::JobLink(AsyncDevice& device, Milliseconds limit, Handlers handlers)
    : device_(device), limit_(limit), handlers_(std::move(handlers)), lastAnswer_(Clock::now()) {}

JobLink::~JobLink() {
  stop();
}

void JobLink::stop() {
  ++generation_;
  loop().cancel(timer_);
}

void JobLink::ask(const Request& request, std::function<void(const Reply& reply)> answered) {
  device_.ask(request, [this, alive = std::weak_ptr<bool>(alive_), generation = generation_,
                        answered = std::move(answered)](const Reply& reply) {
    if (alive.expired() || generation != generation_) {
      return;
    }
    if (reply.answered()) {
      losses_ = 0;
      lastAnswer_ = Clock::now();
      answered(reply);
    } else {
      lose(reply.error());
    }
  });
}

void JobLink::after(Milliseconds time, std::function<void()> call) {
  loop().cancel(timer_);
  timer_ = loop().after(time, [this, call = std::move(call)] {
    timer_ = Timer();
    call();
  });
}

void JobLink::lose(const Error& error) {
  stop();
  trying_ = trying_ || error.outcome() == Outcome::unknown;
  if (!trying_ || !isLoss(error) || Clock::now() - lastAnswer_ >= limit_) {
    const auto failed = handlers_.failed;  // it may destroy this object
    failed(error);
    return;
  }
  ++losses_;
  const Milliseconds pause = retryPause(device_.options().retryPause(), losses_);
  after(std::min(pause, kLongestPause), [this] { handlers_.resume(); });
  const auto lost = handlers_.lost;  // it may destroy this object
  lost(error);
}

}  // namespace runel
