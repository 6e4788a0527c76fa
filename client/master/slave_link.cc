// SPDX-License-Identifier: Apache-2.0
#include "client/master/slave_link.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <linux/sockios.h>

#include <zell/slave_task.h>

#include "protocol/protocol.h"

namespace runel {
namespace {

constexpr std::size_t kMostTasksQueued = 8388608;
constexpr std::size_t kMostWaiting = 4096;
constexpr std::size_t kLongestOwnAnswer = 65536;
// A kernel acknowledges data within a fraction of a second, even if its programs are busy.
constexpr Milliseconds kConfirmTime{5000};
constexpr Milliseconds kLookPause{500};
// The resolution of the kernel's timestamps.
constexpr Milliseconds kTick{20};

}  // namespace

bool isAnswered(const std::string& payload) {
  static constexpr std::string_view kName = " 7:restart ";
  if (!zell::SlaveTask::isA(payload)) {
    return false;
  }
  // The first bytes are sufficient for all other tasks: the name follows the count.
  if (payload.substr(0, 64).find(kName) == std::string::npos) {
    return true;
  }
  zell::SlaveTask task;
  return !task.parse(payload) || task.args().empty() || task.args()[0] != "restart";
}

SlaveLink::SlaveLink(Loop& loop, zell::UniqueFd socket, Milliseconds timeout, Events events)
    : loop_(loop),
      timeout_(timeout),
      events_(std::move(events)),
      channel_(loop, std::move(socket),
               {[this](std::string&& payload) { take(std::move(payload)); },
                [this](const Error& error) { lose(error); }, [this] { progress(); }}) {
  limitAnswers();
}

SlaveLink::~SlaveLink() {
  loop_.cancel(timer_);
}

void SlaveLink::forward(std::string payload, Answer answer, Ends ends) {
  ++counters_.requests;
  send(std::move(payload), {std::move(answer), std::move(ends), false});
}

void SlaveLink::ask(const Request& request, ReplyHandler handler) {
  send(request.encode(),
       {[this, handler = std::move(handler)](std::string&& payload) {
          --unanswered_;
          std::optional<Reply> reply = Reply::decode(std::move(payload));
          if (!reply) {
            lose({Kind::link, Cause::protocol, "malformed answer: not a task record"});
          } else {
            handler(std::move(*reply));
          }
        },
        Ends(), true});
  if (unanswered_++ == 0) {
    asked_ = Clock::now();
    watchCheck();
  }
}

void SlaveLink::check() {
  if (unanswered_ == 0) {
    ask(Request({"fileexists", "/"}), [](const Reply&) {});
  }
}

void SlaveLink::send(std::string payload, Pending pending) {
  counters_.bytesOut += payload.size();
  const bool answered = isAnswered(payload);
  channel_.send(std::move(payload));
  pending.end = channel_.everQueued();
  if (answered) {
    users_ += pending.own ? 0 : 1;
    pending_.push_back(std::move(pending));
    limitAnswers();
  } else {
    unanswerable_.push_back(std::move(pending));
  }
}

void SlaveLink::take(std::string&& payload) {
  counters_.bytesIn += payload.size();
  if (pending_.empty()) {
    lose({Kind::link, Cause::protocol, "answer without a request"});
    return;
  }
  const Pending front = std::move(pending_.front());
  pending_.pop_front();
  users_ -= front.own ? 0 : 1;
  limitAnswers();
  front.answer(std::move(payload));
}

void SlaveLink::progress() {
  while (!unanswerable_.empty() && isSent(unanswerable_.front())) {
    const Pending front = std::move(unanswerable_.front());
    unanswerable_.pop_front();
    if (front.ends.sent) {
      front.ends.sent();
    }
  }
  if (events_.progress) {
    events_.progress();
  }
}

bool SlaveLink::isSent(const Pending& pending) const {
  return channel_.everQueued() - channel_.queued() >= pending.end;
}

// Sets the size limit for the answer to the oldest request. The answers to the master's requests
// are small.
void SlaveLink::limitAnswers() {
  const bool users = !pending_.empty() && !pending_.front().own;
  channel_.limitMessages(users ? zell::kMaxFramePayload : kLongestOwnAnswer);
}

void SlaveLink::setReading(bool reading) {
  if (reading_ != reading) {
    reading_ = reading;
    channel_.setReading(reading);
  }
}

bool SlaveLink::busy() const {
  return channel_.queued() > kMostTasksQueued || pending_.size() > kMostWaiting;
}

bool SlaveLink::onlyOwnWork() const {
  return users_ == 0 && reading_;
}

void SlaveLink::watchCheck() {
  loop_.cancel(timer_);
  timer_ = loop_.after(kLookPause, [this] {
    if (unanswered_ == 0) {
      return;
    }
    const auto since = std::chrono::duration_cast<Milliseconds>(Clock::now() - asked_);
    if (since >= kConfirmTime && !confirms(since)) {
      lose({Kind::link, Cause::closed, "half-open connection: the peer does not acknowledge data",
            ETIMEDOUT});
    } else if (since >= timeout_ && onlyOwnWork()) {
      // A device that runs a program for a user may be silent for long. This one has only cheap
      // tasks.
      lose({Kind::timeout, Cause::silence, "no answer to the liveness check", ETIMEDOUT});
    } else {
      watchCheck();
    }
  });
}

// Whether the peer's kernel has acknowledged any data since the request was sent. A busy device
// does. A device that was switched off, disconnected or restarted does not.
bool SlaveLink::confirms(Milliseconds since) const {
  int left = 0;
  if (ioctl(channel_.descriptor(), SIOCOUTQ, &left) == 0 && left == 0) {
    return true;
  }
  tcp_info info{};
  socklen_t size = sizeof info;
  return getsockopt(channel_.descriptor(), IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
         Milliseconds(info.tcpi_last_ack_recv) + kTick < since;
}

void SlaveLink::lose(const Error& error) {
  loop_.cancel(timer_);
  failAll(error);
  users_ = 0;
  unanswered_ = 0;
  const auto lost = std::move(events_.lost);
  events_ = Events();
  if (lost) {
    lost(error);
  }
}

void SlaveLink::failAll(const Error& error) {
  for (const auto* requests : {&pending_, &unanswerable_}) {
    for (const Pending& request : *requests) {
      if (request.ends.failed) {
        request.ends.failed(error.with(isSent(request) ? Outcome::unknown : Outcome::notSent));
      }
    }
  }
  pending_.clear();
  unanswerable_.clear();
}

}  // namespace runel
