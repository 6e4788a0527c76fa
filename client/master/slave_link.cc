// SPDX-License-Identifier: Apache-2.0
#include "client/master/slave_link.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
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

// Passes a long answer on. Nothing of it remains for the text.
class SinkStore : public PayloadStore {
 public:
  explicit SinkStore(const std::shared_ptr<const UserRequest::Sink>& sink) : sink_(sink) {}
  void add(std::string_view bytes) override {
    const auto sink = sink_.lock();
    if (sink) {  // otherwise the request was withdrawn
      (*sink)(bytes);
    }
  }
  std::optional<std::string> take() override { return std::string(); }

 private:
  const std::weak_ptr<const UserRequest::Sink> sink_;
};

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

SlaveLink::UserPayload::UserPayload(std::string whole) : answered(isAnswered(whole)) {
  bytes.head = std::move(whole);
}

std::uint64_t SlaveLink::forward(UserPayload payload, Answer answer, Ends ends,
                                 LongAnswers answers) {
  ++counters_.requests;
  return send(std::move(payload),
              {std::move(answer), std::move(ends), false, std::move(answers), ++lastNumber_});
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

std::uint64_t SlaveLink::send(UserPayload payload, Pending pending) {
  const std::uint64_t number = pending.number;
  pending.size = payload.bytes.size();
  counters_.bytesOut += pending.size;
  pending.begin = channel_.everQueued();
  channel_.send(std::move(payload.bytes));
  pending.end = channel_.everQueued();
  if (payload.answered) {
    users_ += pending.own ? 0 : 1;
    const auto added = pending_.insert(pending_.end(), std::move(pending));
    unsent_ = unsent_ == pending_.end() ? added : unsent_;
    limitAnswers();
  } else {
    unanswerable_.push_back(std::move(pending));
  }
  return number;
}

SlaveLink::Requests::iterator SlaveLink::find(Requests& requests, std::uint64_t number) {
  return std::find_if(requests.begin(), requests.end(), [number](const Pending& request) {
    return !request.own && request.number == number;
  });
}

bool SlaveLink::withdraw(std::uint64_t number) {
  for (Requests* requests : {&pending_, &unanswerable_}) {
    const auto found = find(*requests, number);
    if (found != requests->end()) {
      return withdraw(*requests, found);
    }
  }
  return false;
}

// An answer to what is sent still comes, also to a request that is not a record.
bool SlaveLink::withdraw(Requests& requests, Requests::iterator request) {
  const std::uint64_t sent = channel_.everQueued() - channel_.queued();
  if (sent <= request->begin) {
    drop(requests, request);
    return true;
  }
  if (isSent(*request)) {
    return false;
  }
  request->answer = [](std::string&&) {};
  request->ends = Ends();
  request->answers = LongAnswers();
  request->sink.reset();
  channel_.spoil(request->end);
  if (&requests == &unanswerable_) {
    const auto later = std::find_if(pending_.begin(), pending_.end(), [&](const Pending& other) {
      return other.begin > request->begin;
    });
    ++users_;
    pending_.splice(later, requests, request);
    unsent_ = unsent_ == later ? request : unsent_;
  }
  limitAnswers();
  return true;
}

void SlaveLink::drop(Requests& requests, Requests::iterator request) {
  const std::uint64_t length = request->end - request->begin;
  channel_.remove(request->begin, request->end);
  counters_.bytesOut -= request->size;
  for (Requests* others : {&pending_, &unanswerable_}) {
    for (Pending& other : *others) {
      if (other.begin > request->begin) {
        other.begin -= length;
        other.end -= length;
      }
    }
  }
  users_ -= &requests == &pending_ ? 1 : 0;
  unsent_ = unsent_ == request ? std::next(request) : unsent_;
  requests.erase(request);
  limitAnswers();
}

void SlaveLink::take(std::string&& payload) {
  counters_.bytesIn += payload.size() + std::exchange(storedAnswer_, 0);
  if (pending_.empty()) {
    lose({Kind::link, Cause::protocol, "answer without a request"});
    return;
  }
  unsent_ = unsent_ == pending_.begin() ? std::next(unsent_) : unsent_;
  const Pending front = std::move(pending_.front());
  pending_.pop_front();
  users_ -= front.own ? 0 : 1;
  limitAnswers();
  front.answer(std::move(payload));
}

void SlaveLink::tellSent(Pending& pending) {
  const auto sent = std::exchange(pending.ends.sent, nullptr);
  if (sent) {
    sent();
  }
}

void SlaveLink::progress() {
  while (unsent_ != pending_.end() && isSent(*unsent_)) {
    tellSent(*unsent_++);
  }
  while (!unanswerable_.empty() && isSent(unanswerable_.front())) {
    Pending front = std::move(unanswerable_.front());
    unanswerable_.pop_front();
    tellSent(front);
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
  const bool storing = users && pending_.front().answers.make;
  if (storing) {
    channel_.keepLongMessages([this](std::size_t length) { return store(length); },
                              pending_.front().answers.least);
  } else if (storing_) {
    channel_.keepLongMessages(nullptr, 0);
  }
  storing_ = storing;
}

// Called when the length of the answer to the oldest request is known.
std::unique_ptr<PayloadStore> SlaveLink::store(std::size_t length) {
  storedAnswer_ = length;
  Pending& front = pending_.front();
  front.sink = std::make_shared<const UserRequest::Sink>(front.answers.make(length));
  return std::make_unique<SinkStore>(front.sink);
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

zell::UniqueFd SlaveLink::release(const Error& error) {
  loop_.cancel(timer_);
  events_ = Events();
  failAll(error);
  return channel_.release();
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
  unsent_ = pending_.end();
  unanswerable_.clear();
}

}  // namespace runel
