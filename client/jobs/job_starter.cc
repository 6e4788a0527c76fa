// SPDX-License-Identifier: Apache-2.0
#include "client/jobs/job_starter.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <runel/records.h>

namespace runel {
namespace {

// The daemon holds a piece in memory, and serves no other client while it stores one.
constexpr std::size_t kInputPiece = 1048576;

}  // namespace

JobStarter::JobStarter(AsyncDevice& device, JobPlace place, JobPlan plan,
                       std::shared_ptr<const std::string> input, Milliseconds limit,
                       Handlers handlers)
    : place_(std::move(place)),
      plan_(withToken(std::move(plan))),
      input_(std::move(input)),
      handlers_(std::move(handlers)),
      link_(device, limit,
            {[this] { step(); }, [this](const Error& error) { finish(JobAnswer::failed, error); },
             [this](const Error& error) { lost(error); }}) {}

JobPlan JobStarter::withToken(JobPlan plan) {
  if (plan.token.empty()) {
    plan.token = newJobToken();
  }
  return plan;
}

void JobStarter::step() {
  switch (step_) {
    case Step::make:
      make(input_ ? JobStart::claim : JobStart::whole, input_ ? Step::send : Step::make);
      return;
    case Step::look:
      look();
      return;
    case Step::send:
      send();
      return;
    case Step::run:
      make(JobStart::run, Step::run);
  }
}

// @p next is the step after this one; the same step if this is the last one.
void JobStarter::make(JobStart part, Step next) {
  link_.ask(startJob(place_, plan_, part), [this, next](const Reply& reply) { made(reply, next); });
}

void JobStarter::made(const Reply& reply, Step next) {
  const JobAnswer answer = jobAnswerOf(reply);
  if (answer != JobAnswer::done) {
    finish(answer, jobErrorOf(reply, place_));
    return;
  }
  link_.keepTrying();
  if (next == step_) {
    finish(JobAnswer::done, std::nullopt);
    return;
  }
  step_ = next;
  step();
}

// How much of the input has arrived: "append" adds all of its data or nothing.
void JobStarter::look() {
  link_.ask(Request({"stat", place_.path("in")}), [this](const Reply& reply) {
    const std::optional<Stat> st = reply.ok() ? parseStat(reply.output()) : std::nullopt;
    if (!st || st->size > input_->size()) {
      drop(reply.ok() ? Error(Kind::link, Cause::protocol, "malformed answer to stat")
                      : reply.error("standard input"));
      return;
    }
    offset_ = static_cast<std::size_t>(st->size);
    step_ = Step::send;
    send();
  });
}

void JobStarter::send() {
  const std::size_t bytes = std::min(input_->size() - offset_, kInputPiece);
  if (bytes == 0) {
    step_ = Step::run;
    step();
    return;
  }
  link_.ask(Request({"append", place_.path("in")}, input_->substr(offset_, bytes)),
            [this, bytes](const Reply& reply) { sent(reply, bytes); });
}

void JobStarter::sent(const Reply& reply, std::size_t bytes) {
  if (!reply.ok()) {
    drop(reply.error("standard input"));
    return;
  }
  offset_ += bytes;
  send();
}

// The claimed directory would stay, and with it what was sent.
void JobStarter::drop(const Error& error) {
  link_.ask(removeJob(place_), [this, error](const Reply&) { finish(JobAnswer::failed, error); });
}

void JobStarter::lost(const Error& error) {
  if (step_ == Step::send) {
    step_ = Step::look;
  }
  if (handlers_.lost) {
    handlers_.lost(error);
  }
}

// Last, because the handler may destroy this object.
void JobStarter::finish(JobAnswer answer, const std::optional<Error>& error) {
  link_.stop();
  const auto done = handlers_.done;
  done(answer, error);
}

}  // namespace runel
