// SPDX-License-Identifier: Apache-2.0
#include "client/master/master_connection.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>

#include "client/master/access_list.h"

namespace runel {
namespace {

// A longer host identifier counts as missing.
constexpr std::size_t kLongestRawHostid = 256;

}  // namespace

std::int64_t wallClockNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<Milliseconds>(now).count();
}

/// A request of the program. It ends once: by its reply, a loss or the I/O timeout.
struct MasterConnection::Asked {
  Asked(Loop& itsLoop, ReplyHandler itsHandler) : loop(itsLoop), handler(std::move(itsHandler)) {}
  ~Asked() { loop.cancel(timer); }
  Asked(const Asked&) = delete;
  Asked& operator=(const Asked&) = delete;

  Loop& loop;
  ReplyHandler handler;  // empty after the end
  Clock::time_point start = Clock::now();
  Milliseconds limit{0};
  Timer timer;
};

MasterConnection::MasterConnection(const Context& context, Id id, Peer peer)
    : context_(context), id_(id), peer_(std::move(peer)), since_(wallClockNow()) {}

MasterConnection::~MasterConnection() {
  for (const auto& user : users_) {
    user->connection = nullptr;
  }
}

std::string MasterConnection::Peer::host() const {
  const in_addr network{htonl(address)};
  char text[INET_ADDRSTRLEN] = "";
  (void)inet_ntop(AF_INET, &network, text, sizeof text);  // the buffer fits every address
  return text;
}

// No address begins like the group of a certificate.
std::string MasterConnection::Peer::group() const {
  return certificate.empty() ? host() : "=" + certificate;
}

std::string MasterConnection::takeRawHostid() {
  const auto raw = std::move(rawHostid_);
  return raw ? *raw : hostid_;
}

void MasterConnection::useAsSlave(zell::UniqueFd socket) {
  link(std::move(socket));
  identify();
}

void MasterConnection::link(zell::UniqueFd socket) {
  lastProgress_ = Clock::now();
  slave_ =
      std::make_unique<SlaveLink>(context_.loop, std::move(socket), context_.timeout,
                                  SlaveLink::Events{[this](const Error& error) { lose(error); },
                                                    [this] {
                                                      lastProgress_ = Clock::now();
                                                      adjust();
                                                    }});
}

void MasterConnection::adopt(const MasterConnection& owner) {
  hostid_ = owner.hostid();
  name_ = owner.name();
}

void MasterConnection::useAsBridge(zell::UniqueFd socket) {
  bridge_ = std::make_unique<Bridge>(
      context_.loop, std::move(socket),
      Bridge::Events{[this] { context_.observer.spoke(id_); },
                     [this](const std::string& clause) { context_.observer.clause(id_, clause); },
                     [this](const std::string& why) { context_.observer.lost(id_, why); }});
}

void MasterConnection::promote() {
  zell::UniqueFd socket = bridge_->take();
  bridge_.reset();
  waits_ = false;
  useAsSlave(std::move(socket));
}

void MasterConnection::wait(zell::UniqueFd socket) {
  waits_ = true;
  useAsBridge(std::move(socket));
}

void MasterConnection::wait() {
  waits_ = true;
  hostid_.clear();
  name_.clear();
}

void MasterConnection::useSilently(zell::UniqueFd socket) {
  silent_ = std::make_unique<SilentSocket>(
      context_.loop, std::move(socket), identified_,
      [this](const std::string& why) { context_.observer.lost(id_, why); });
}

void MasterConnection::silence(const Error& error) {
  refuse();
  if (slave_) {
    clean_ = identified_ && slave_->isIdle();
    zell::UniqueFd socket = slave_->release(error);
    context_.calls.add([gone = std::shared_ptr<SlaveLink>(std::move(slave_))] { (void)gone; });
    endUsers(error);
    useSilently(std::move(socket));
  } else if (waits_) {
    zell::UniqueFd socket = bridge_->take();
    bridge_.reset();
    waits_ = false;
    useSilently(std::move(socket));
  }
}

bool MasterConnection::resume() {
  if (!clean_ || silent_->hasDropped()) {
    return false;
  }
  refused_ = false;
  zell::UniqueFd socket = silent_->take();
  silent_.reset();
  link(std::move(socket));
  return true;
}

// The reported names are printed and compared, so they must be valid.
void MasterConnection::identify() {
  slave_->ask(Request({"hostid"}), [this](const Reply& reply) {
    hostid_ = reply.ok() && usableName(reply.output()) ? reply.output() : "";
    if (reply.ok() && hostid_.empty() && reply.output().size() <= kLongestRawHostid) {
      rawHostid_ = std::make_unique<std::string>(reply.output());
    }
  });
  slave_->ask(Request({"devicetype"}), [this](const Reply& reply) {
    deviceType_ = reply.ok() && usableName(reply.output()) ? reply.output() : "";
    identified_ = true;
    context_.observer.identified(id_);
  });
}

void MasterConnection::lose(const Error& error) {
  endUsers(error);
  context_.observer.lost(id_, error.text());
}

void MasterConnection::ask(const Request& request, ReplyHandler handler) {
  const auto asked = std::make_shared<Asked>(context_.loop, std::move(handler));
  const auto answered = [this, asked, most = request.replyLimit()](std::string&& payload) {
    const bool tooLong = payload.size() > most;
    std::optional<Reply> reply = Reply::decode(std::move(payload));
    const Error error(
        Kind::link, Cause::protocol,
        tooLong ? "answer exceeds the size limit" : "malformed answer: not a task record");
    finish(*asked, reply && !tooLong ? std::move(*reply) : Reply(error.with(Outcome::unknown)));
  };
  const auto failed = [this, asked](const Error& error) { finish(*asked, error); };
  SlaveLink::Ends ends{failed, nullptr};
  if (!request.answered()) {
    ends.sent = [this, asked] { finish(*asked, Reply()); };
  }
  slave_->forward(request.encode(), answered, ends, SlaveLink::LongAnswers());
  if (request.answered() && request.extraTimeout()) {
    asked->limit = context_.timeout + *request.extraTimeout();
    watch(asked);
  }
}

// The answer may come after the timeout: the link must know that it is due. So the connection stays
// open, unless the device is dead.
void MasterConnection::watch(const std::shared_ptr<Asked>& asked) {
  const Clock::time_point due = std::max(lastProgress_, asked->start) + asked->limit;
  const auto left = std::chrono::ceil<Milliseconds>(due - Clock::now());
  if (left.count() > 0) {
    asked->timer = context_.loop.after(left, [this, weak = std::weak_ptr<Asked>(asked)] {
      const auto held = weak.lock();
      if (held && held->handler) {
        watch(held);
      }
    });
    return;
  }
  const Error error(Kind::timeout, Cause::silence, "no answer within the timeout", ETIMEDOUT);
  finish(*asked, error.with(Outcome::unknown));
  slave_->check();
}

void MasterConnection::finish(Asked& asked, Reply reply) {
  context_.loop.cancel(asked.timer);
  if (asked.handler) {
    context_.calls.add([handler = std::exchange(asked.handler, nullptr), reply = std::move(reply)] {
      handler(reply);
    });
  }
}

std::shared_ptr<MasterConnection::User> MasterConnection::attach(MasterUser::Handlers handlers) {
  auto user = std::make_shared<User>();
  user->handlers = std::move(handlers);
  user->connection = this;
  adjust();
  user->busy = busy_;
  user->place = users_.insert(users_.end(), user);
  return user;
}

void MasterConnection::forward(const std::shared_ptr<User>& user, std::string payload,
                               MasterUser::Answer answer) {
  // The handle drops `user`: late answers are ignored.
  const auto pass = [&calls = context_.calls, weak = std::weak_ptr<User>(user),
                     answer = std::move(answer)](std::string&& reply) {
    calls.add([weak, answer, reply = std::move(reply)]() mutable {
      if (!weak.expired()) {
        answer(std::move(reply));
      }
    });
  };
  slave_->forward(std::move(payload), pass, SlaveLink::Ends(), SlaveLink::LongAnswers());
  adjust();
}

// The link calls back while it works, so the handlers are called later. They are found by number:
// the request may be withdrawn in between.
std::uint64_t MasterConnection::send(const std::shared_ptr<User>& user,
                                     SlaveLink::UserPayload payload, UserHandlers handlers,
                                     SlaveLink::LongAnswers answers) {
  const auto made = std::make_shared<UserHandlers>(std::move(handlers));
  const auto queue = [&calls = context_.calls, weak = std::weak_ptr<User>(user),
                      request = std::weak_ptr<UserHandlers>(made)](auto call) {
    calls.add([weak, request, call = std::move(call)]() mutable {
      const auto held = request.lock();
      if (held && !weak.expired()) {
        call(*held, *weak.lock());
      }
    });
  };
  const auto end = [](const UserHandlers& held, User& of) {
    const auto kept = of.requests.extract(held.number);  // it lives until its handler returns
    return kept.mapped();
  };
  const auto answered = [queue, end](std::string&& reply) {
    queue([end, reply = std::move(reply)](const UserHandlers& held, User& of) mutable {
      const auto kept = end(held, of);
      if (kept->answer) {
        kept->answer(std::move(reply));
      }
    });
  };
  const auto failed = [queue, end](const Error& error) {
    queue([end, error](const UserHandlers& held, User& of) {
      const auto kept = end(held, of);
      if (kept->failed) {
        kept->failed(error);
      }
    });
  };
  const auto sent = [queue, end, last = !payload.answered]() {
    queue([end, last](const UserHandlers& held, User& of) {
      const auto kept = last ? end(held, of) : of.requests.at(held.number);
      if (kept->sent) {
        kept->sent();
      }
    });
  };
  made->number = slave_->forward(std::move(payload), answered, {failed, sent}, std::move(answers));
  user->requests.emplace(made->number, made);
  adjust();
  return made->number;
}

bool MasterConnection::withdraw(User& user, std::uint64_t number) {
  if (user.requests.count(number) == 0 || !slave_->withdraw(number)) {
    return false;
  }
  user.requests.erase(number);
  adjust();
  return true;
}

// A user that leaves before its answers may have timed out on a dead device: check the device.
void MasterConnection::detach(const std::shared_ptr<User>& user) {
  slowUsers_ -= user->reading ? 0 : 1;
  users_.erase(user->place);
  if (slave_->waiting() > 0) {
    slave_->check();
  }
  adjust();
}

void MasterConnection::setReading(User& user, bool on) {
  if (std::exchange(user.reading, on) != on) {
    slowUsers_ = on ? slowUsers_ - 1 : slowUsers_ + 1;
    adjust();
  }
}

// Called for each request and answer: looks through the users only when there is something to tell.
void MasterConnection::adjust() {
  slave_->setReading(slowUsers_ == 0);
  if (slave_->busy() == busy_) {
    return;
  }
  busy_ = !busy_;
  for (const auto& user : users_) {
    user->busy = busy_;
    if (user->handlers.busy) {
      context_.calls.add([weak = std::weak_ptr<User>(user), busy = busy_] {
        const auto held = weak.lock();
        if (held) {
          held->handlers.busy(busy);
        }
      });
    }
  }
}

void MasterConnection::check() {
  if (slave_) {
    slave_->check();
  }
}

void MasterConnection::endUsers(const Error& error) {
  for (const auto& user : users_) {
    user->connection = nullptr;
    context_.calls.add([weak = std::weak_ptr<User>(user), error] {
      const auto held = weak.lock();
      if (held && held->handlers.lost) {
        held->handlers.lost(error);
      }
    });
  }
  users_.clear();
  slowUsers_ = 0;
}

Milliseconds MasterConnection::age() const {
  return std::chrono::duration_cast<Milliseconds>(Clock::now() - start_);
}

SlaveLink::Counters MasterConnection::counters() const {
  return slave_ ? slave_->counters() : SlaveLink::Counters();
}

}  // namespace runel
