// SPDX-License-Identifier: Apache-2.0
#include "client/io/channel.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "client/io/acknowledgements.h"

namespace runel {
namespace {

constexpr std::size_t kLeastRead = 16384;
constexpr std::size_t kMostRead = 1048576;
constexpr std::size_t kPartsAtOnce = 16;
// A small part of the time that the system waits for an acknowledgement.
constexpr Milliseconds kLookAtAcknowledgements{5000};

// A message that is held in a spool.
class SpooledMessage : public PayloadStore {
 public:
  SpooledMessage(std::shared_ptr<Spool> spool, std::size_t length)
      : bytes_(std::move(spool), Held::arriving) {
    bytes_.expect(length);
  }
  void add(std::string_view bytes) override { bytes_.add(bytes); }
  std::optional<std::string> take() override { return bytes_.release(); }

 private:
  HeldBytes bytes_;
};

bool wouldBlock(int number) {
  return number == EAGAIN || number == EWOULDBLOCK || number == EINTR;
}

}  // namespace

Channel::Channel(Loop& loop, zell::UniqueFd socket, Handlers handlers)
    : loop_(loop),
      socket_(std::move(socket)),
      handlers_(std::move(handlers)),
      remote_(limitAcknowledgements(socket_.get())),
      alive_(std::make_shared<bool>(true)) {
  if (!loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t events) { handle(events); })) {
    const int number = errno;
    loop_.next([this, number, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired()) {
        finish(endOfStream(number));
      }
    });
  }
}

Channel::~Channel() {
  loop_.cancel(look_);
  if (spool_) {
    spool_->free(counted_);
  }
  loop_.forget(socket_.get());
}

void Channel::setSpool(std::shared_ptr<Spool> spool) {
  spool_ = std::move(spool);
  stream_.keepLongPayloads(
      [this](std::size_t length) { return std::make_unique<SpooledMessage>(spool_, length); });
}

void Channel::send(OutgoingPayload payload) {
  stream_.send(std::move(payload));
  askFor();
}

void Channel::remove(std::uint64_t begin, std::uint64_t end) {
  stream_.remove(begin, end);
  askFor();
}

void Channel::setReading(bool reading) {
  reading_ = reading;
  askFor();
}

zell::UniqueFd Channel::release() {
  loop_.cancel(look_);
  loop_.forget(socket_.get());
  handlers_ = Handlers();
  return std::move(socket_);
}

void Channel::askFor() {
  writing_ = queued() > 0;
  loop_.change(socket_.get(), (reading_ ? std::uint32_t{EPOLLIN} : 0U) |
                                  (writing_ ? std::uint32_t{EPOLLOUT} : 0U));
}

// Read first: the last data of a closing peer explains more than the error of a write.
void Channel::handle(std::uint32_t events) {
  const std::weak_ptr<bool> alive = alive_;
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !receive()) {
    return;
  }
  if (writing_ && (events & EPOLLOUT) != 0) {
    flush();
  }
  if (!alive.expired() && handlers_.progress) {
    handlers_.progress();
  }
}

void Channel::flush() {
  iovec parts[kPartsAtOnce];
  std::size_t count = 0;
  for (const std::string_view part : stream_.outgoing(kPartsAtOnce)) {
    parts[count++] = {const_cast<char*>(part.data()), part.size()};  // iovec has no const
  }
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(count);  // int with musl
  const ssize_t taken = sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken < 0) {
    if (!wouldBlock(errno)) {
      finish(endOfStream(errno));
    }
    return;
  }
  stream_.sent(static_cast<std::size_t>(taken));
  if (stream_.unreadable()) {
    finish({Kind::local, Cause::other, "cannot read the content of a request"});
    return;
  }
  askFor();
  if (remote_ && look_.id == 0) {
    watchAcknowledgements();
  }
}

void Channel::watchAcknowledgements() {
  look_ = loop_.after(kLookAtAcknowledgements, [this] {
    look_ = Timer();
    (void)limitAcknowledgements(socket_.get());  // it is a TCP connection
    if (queued() > 0 || !isAcknowledged(socket_.get())) {
      watchAcknowledgements();
    }
  });
}

// One read per readiness; the buffer grows with the amount of data. After the end of a message it
// is released: a master has thousands of idle connections. Returns false when the channel is closed
// or destroyed.
bool Channel::receive() {
  in_.resize(std::max(in_.size(), kLeastRead));
  const ssize_t got = recv(socket_.get(), in_.data(), in_.size(), MSG_DONTWAIT);
  if (got < 0 && wouldBlock(errno)) {
    return true;
  }
  if (got <= 0) {
    finish(endOfStream(got < 0 ? errno : 0));
    return false;
  }
  const auto length = static_cast<std::size_t>(got);
  const bool full = length == in_.size();
  in_.resize(length);
  stream_.receive(in_);
  in_.resize(nextRead(length, full));
  return deliver(full);
}

// The size of the next read. The buffer grows only within the memory of the spool.
std::size_t Channel::nextRead(std::size_t length, bool full) {
  const std::size_t wanted = full ? std::min(kMostRead, length * 4) : std::max(kLeastRead, length);
  if (!spool_ || wanted <= std::max(counted_, kLeastRead)) {
    return wanted;
  }
  if (!spool_->use(wanted - counted_, Held::arriving)) {
    return std::max(counted_, kLeastRead);
  }
  counted_ = wanted;
  return wanted;
}

void Channel::releaseBuffer() {
  stream_.releaseSpare();
  std::string().swap(in_);  // releases the memory, which an assignment would keep
  if (spool_) {
    spool_->free(std::exchange(counted_, 0));
  }
}

// @p more: further bytes are already there.
bool Channel::deliver(bool more) {
  const std::weak_ptr<bool> alive = alive_;
  while (std::optional<std::string> message = stream_.nextPayload()) {
    if (!more) {
      releaseBuffer();
    }
    handlers_.message(std::move(*message));
    if (alive.expired()) {
      return false;
    }
  }
  if (const std::optional<Error> error = stream_.error()) {
    finish(*error);
    return false;
  }
  return true;
}

Error Channel::endOfStream(int number) const {
  if (number == ETIMEDOUT) {
    return {Kind::link, Cause::closed, "connection lost: the device acknowledges no data", number};
  }
  return {Kind::link, Cause::closed,
          number == 0 ? "the device closed the connection" : systemText(number), number};
}

void Channel::finish(const Error& error) {
  loop_.cancel(look_);
  loop_.forget(socket_.get());
  const auto end = std::move(handlers_.end);
  handlers_ = Handlers();
  socket_.reset();
  if (end) {
    end(error);
  }
}

}  // namespace runel
