// SPDX-License-Identifier: Apache-2.0
#include <runel/async_device.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

#include <fcntl.h>

#include "base/unique_fd.h"
#include "client/core/exclusive_task.h"
#include "client/core/late_content.h"
#include "client/core/link_event.h"
#include "client/core/session.h"
#include "client/io/acknowledgements.h"
#include "client/io/channel.h"
#include "client/io/connector.h"
#include "client/io/dialer.h"
#include "client/io/spool.h"

namespace runel {
inline namespace v1 {

struct AsyncDevice::Data {
  Data(Loop& itsLoop, Address itsAddress, DeviceOptions itsOptions, bool itDials)
      : loop_(itsLoop),
        address_(std::move(itsAddress)),
        options_(itsOptions),
        dials_(itDials),
        dialed_(DeviceDialer::of(options_) != nullptr && address_.isBehindMaster()),
        session_(options_.ioTimeout(), dialed_) {}

  void askShared(const Request& request, ReplyHandler handler);
  void refuse(const Error& why, ReplyHandler handler);
  void ask(OutgoingPayload payload, const Request& like, ReplyHandler handler, bool raw);
  void connect();
  void connected(zell::UniqueFd socket);
  void send(OutgoingPayload&& payload);
  void received(std::string&& payload);
  void progress();
  [[nodiscard]] std::uint64_t sentBytes() const;
  void ended(const Error& last);
  void deliver();
  void refresh();
  void watchDeadline();
  void close(const Error& why);
  void closeLater(const Error& why);
  void abandon();

  Loop& loop_;
  const Address address_;
  const DeviceOptions options_;
  const bool dials_;   // false for a device that has connected itself
  const bool dialed_;  // through a dialer: the device has other clients, and the peer tells events
  Session session_;
  std::unique_ptr<Connector> connector_;
  std::unique_ptr<Channel> channel_;
  std::shared_ptr<DialedLine> line_;   // of a dialed channel_
  std::deque<OutgoingPayload> early_;  // payloads queued until the connection is open
  std::optional<Error> disorder_;      // protocol error of an idle device
  Timer deadline_;
  std::function<void(const Error& why)> closed_;
  Tap dryRun_;
  Tap tap_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

void AsyncDevice::Data::ask(OutgoingPayload payload, const Request& like, ReplyHandler handler,
                            bool raw) {
  if (dryRun_) {
    dryRun_(payload.content.size == 0 ? payload.head : like.encode());
    return;
  }
  session_.add(like, std::move(handler), Clock::now(), raw);
  if (disorder_) {
    closeLater(*disorder_);
  } else if (channel_) {
    send(std::move(payload));
    refresh();
  } else if (dials_) {
    early_.push_back(std::move(payload));
    connect();
  } else {
    closeLater({Kind::link, Cause::closed, "the device has closed its connection"});
  }
}

void AsyncDevice::Data::askShared(const Request& request, ReplyHandler handler) {
  if (const std::optional<Error> why = exclusiveTask(request)) {
    refuse(*why, std::move(handler));
  } else {
    const Request same = limited(request);
    ask(LateRequest::payloadOf(same), same, std::move(handler), false);
  }
}

// Nothing of it is sent, and the other requests continue.
void AsyncDevice::Data::refuse(const Error& why, ReplyHandler handler) {
  loop_.next([why, handler = std::move(handler), alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) {
      handler(why);
    }
  });
}

void AsyncDevice::Data::connect() {
  if (connector_) {
    return;
  }
  connector_ = std::make_unique<Connector>(
      loop_, address_, options_, [this](zell::UniqueFd socket, std::optional<Error> error) {
        // The connector is still executing this call: destroy it in the next turn.
        auto held = std::make_shared<std::unique_ptr<Connector>>(std::move(connector_));
        loop_.next([held] { held->reset(); });
        if (error) {
          close(*error);
        } else {
          line_ = (*held)->line();
          connected(std::move(socket));
        }
      });
}

void AsyncDevice::Data::connected(zell::UniqueFd socket) {
  channel_ = std::make_unique<Channel>(
      loop_, std::move(socket),
      Channel::Handlers{[this](std::string&& payload) { received(std::move(payload)); },
                        [this](const Error& error) { ended(error); }, [this] { progress(); }});
  if (const auto& spool = DeviceSpool::of(options_)) {
    channel_->setSpool(spool);
  }
  session_.progress(0, Clock::now());
  while (!early_.empty()) {
    send(std::move(early_.front()));
    early_.pop_front();
  }
  refresh();
}

void AsyncDevice::Data::send(OutgoingPayload&& payload) {
  channel_->send(std::move(payload));
  session_.queued(channel_->everQueued());
}

void AsyncDevice::Data::received(std::string&& payload) {
  const bool event = dialed_ && LinkEvent::parse(payload);
  if (tap_ && session_.pending() > 0 && !event) {
    tap_(payload);
  }
  session_.progress(sentBytes(), Clock::now());
  if (const std::optional<Error> error = session_.receive(std::move(payload), Clock::now())) {
    ended(*error);
    return;
  }
  refresh();
  deliver();
}

void AsyncDevice::Data::progress() {
  session_.progress(sentBytes(), Clock::now());
  refresh();
  deliver();
}

// The peer of a dialed connection may keep bytes for a while.
std::uint64_t AsyncDevice::Data::sentBytes() const {
  const std::uint64_t sent = channel_->everQueued() - channel_->queued();
  return line_ ? std::min(sent, line_->given()) : sent;
}

// A protocol error of an idle device is reported to the next request.
void AsyncDevice::Data::ended(const Error& last) {
  const Error error = line_ ? line_->ended().value_or(last) : last;
  if (session_.pending() == 0 && error.kind() == Kind::link && !error.transient()) {
    disorder_ = error;
  }
  close(error);
}

// A handler may destroy this object.
void AsyncDevice::Data::deliver() {
  const std::weak_ptr<bool> alive = alive_;
  while (std::optional<Session::Completion> next = session_.nextCompletion()) {
    next->handler(std::move(next->reply));
    if (alive.expired()) {
      return;
    }
  }
}

// The oldest request has changed: apply its limits.
void AsyncDevice::Data::refresh() {
  if (channel_ && session_.pending() > 0) {
    channel_->limitMessages(session_.replyLimit());
  }
  const std::optional<Clock::time_point> due = session_.deadline();
  // A timer that is too early finds a later deadline and waits on.
  if (!due) {
    loop_.cancel(deadline_);
  } else if (deadline_.id == 0 || *due < deadline_.due) {
    loop_.cancel(deadline_);
    watchDeadline();
  }
}

void AsyncDevice::Data::watchDeadline() {
  const auto left = std::chrono::ceil<Milliseconds>(*session_.deadline() - Clock::now());
  deadline_ = loop_.after(left, [this] {
    deadline_ = Timer();
    if (const std::optional<Error> error = session_.expired(Clock::now())) {
      close(*error);
    } else if (session_.deadline()) {
      watchDeadline();
    }
  });
}

void AsyncDevice::Data::close(const Error& why) {
  if (channel_) {
    session_.progress(sentBytes(), Clock::now());
  }
  session_.fail(why);
  loop_.cancel(deadline_);
  connector_.reset();
  const bool wasOpen = channel_ != nullptr;
  channel_.reset();
  early_.clear();
  if (wasOpen && closed_) {
    loop_.next([this, why, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired() && closed_) {
        const auto closed = closed_;  // it may replace itself
        closed(why);
      }
    });
  }
  deliver();
}

void AsyncDevice::Data::closeLater(const Error& why) {
  loop_.next([this, why, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) {
      disorder_.reset();
      close(why);
    }
  });
}

void AsyncDevice::Data::abandon() {
  if (channel_) {
    session_.progress(sentBytes(), Clock::now());
  }
  session_.clear();
  loop_.cancel(deadline_);
  connector_.reset();
  channel_.reset();
  early_.clear();
}

AsyncDevice::AsyncDevice(Loop& loop, Address address, DeviceOptions options)
    : data_(std::make_unique<Data>(loop, std::move(address), std::move(options), true)) {}

AsyncDevice::AsyncDevice(Loop& loop, int socket, std::string name, DeviceOptions options)
    : data_(std::make_unique<Data>(loop, Address(name), std::move(options), false)) {
  (void)fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);  // cannot fail on a socket
  setTaskOptions(socket);
  data_->connected(zell::UniqueFd(socket));
}

AsyncDevice::~AsyncDevice() {
  abandon();
}

void AsyncDevice::ask(const Request& request, ReplyHandler handler) {
  if (data_->dialed_) {
    data_->askShared(request, std::move(handler));
    return;
  }
  data_->ask(LateRequest::payloadOf(request), request, std::move(handler), false);
}

void AsyncDevice::askRaw(std::string payload, const Request& like, ReplyHandler handler) {
  if (const auto why = data_->dialed_ ? exclusiveTask(payload) : std::nullopt) {
    data_->refuse(*why, std::move(handler));
    return;
  }
  data_->ask(std::move(payload), like, std::move(handler), true);
}

void AsyncDevice::close(const Error& why) {
  data_->close(why);
}

void AsyncDevice::abandon() {
  data_->abandon();
}

void AsyncDevice::setClosed(std::function<void(const Error& why)> closed) {
  data_->closed_ = std::move(closed);
}

void AsyncDevice::setDryRun(Tap dryRun) {
  data_->dryRun_ = std::move(dryRun);
}

void AsyncDevice::setTap(Tap tap) {
  data_->tap_ = std::move(tap);
}

const Address& AsyncDevice::address() const {
  return data_->address_;
}

const DeviceOptions& AsyncDevice::options() const {
  return data_->options_;
}

Loop& AsyncDevice::loop() const {
  return data_->loop_;
}

std::size_t AsyncDevice::pending() const {
  return data_->session_.pending() + data_->session_.undelivered();
}

std::size_t AsyncDevice::queued() const {
  return data_->channel_ ? data_->channel_->queued() : 0;
}

std::size_t AsyncDevice::sent() const {
  return data_->session_.sent();
}

std::size_t AsyncDevice::unrepeatable() const {
  return data_->session_.unrepeatable();
}

std::size_t AsyncDevice::inDoubt() const {
  return data_->session_.inDoubt();
}

Milliseconds AsyncDevice::silence() const {
  return data_->session_.silence(Clock::now());
}

bool AsyncDevice::acknowledges() const {
  return !data_->channel_ || runel::acknowledges(data_->channel_->descriptor());
}

std::optional<LongTask> AsyncDevice::longTask() const {
  return data_->session_.longTask(Clock::now());
}

}  // namespace v1
}  // namespace runel
