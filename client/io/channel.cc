// SPDX-License-Identifier: Apache-2.0
#include "client/io/channel.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "client/core/peer_guess.h"
#include "protocol/frame_sender.h"

namespace runel {
namespace {

constexpr char kPortHint[] = "check the port: devices listen on 5111";
static_assert(zell::contains(kPortHint, zell::kDevicePort));

constexpr std::size_t kLeastRead = 16384;
constexpr std::size_t kMostRead = 1048576;
constexpr std::size_t kFirstBytes = 64;
// Short frames share a buffer, so that a few system calls send a thousand small requests.
constexpr std::size_t kShared = 32768;
constexpr std::size_t kPartsAtOnce = 16;

bool wouldBlock(int number) {
  return number == EAGAIN || number == EWOULDBLOCK || number == EINTR;
}

}  // namespace

Channel::Channel(Loop& loop, zell::UniqueFd socket, Handlers handlers)
    : loop_(loop),
      socket_(std::move(socket)),
      handlers_(std::move(handlers)),
      alive_(std::make_shared<bool>(true)) {
  in_.resize(kLeastRead);
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
  loop_.forget(socket_.get());
}

void Channel::send(std::string payload) {
  std::string head = zell::frameHead(payload.size());
  queued_ += head.size() + payload.size();
  everQueued_ += head.size() + payload.size();
  if (!out_.empty() && out_.size() > 1 && out_.back().size() + payload.size() < kShared) {
    out_.back() += head;
    out_.back() += payload;
  } else {
    out_.push_back(std::move(head));
    if (payload.size() < kShared) {
      out_.back() += payload;
    } else {
      out_.push_back(std::move(payload));
      out_.emplace_back();  // do not append later frames to a long one: that would copy it
    }
  }
  askFor();
}

void Channel::setReading(bool reading) {
  reading_ = reading;
  askFor();
}

void Channel::askFor() {
  writing_ = queued_ > 0;
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
  for (auto part = out_.begin(); part != out_.end() && count < kPartsAtOnce; ++part) {
    const std::size_t skip = count == 0 ? sent_ : 0;
    parts[count++] = {part->data() + skip, part->size() - skip};
  }
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  const ssize_t taken = sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken < 0) {
    if (!wouldBlock(errno)) {
      finish(endOfStream(errno));
    }
    return;
  }
  queued_ -= static_cast<std::size_t>(taken);
  sent_ += static_cast<std::size_t>(taken);
  while (!out_.empty() && sent_ >= out_.front().size()) {
    sent_ -= out_.front().size();
    out_.pop_front();
  }
  askFor();
}

// One read per readiness; the buffer grows with the amount of data. Returns false when the channel
// is closed or destroyed.
bool Channel::receive() {
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
  first_.append(in_, 0, kFirstBytes - std::min(first_.size(), kFirstBytes));
  coming_ += length;
  codec_.acceptBytes(in_);
  in_.resize(full ? std::min(kMostRead, length * 4) : std::max(kLeastRead, length));
  return deliver();
}

bool Channel::deliver() {
  const std::weak_ptr<bool> alive = alive_;
  std::string message;
  while (codec_.recvMessage(message)) {
    coming_ = 0;
    if (message.size() > limit_) {
      break;
    }
    handlers_.message(std::move(message));
    if (alive.expired()) {
      return false;
    }
    message.clear();
  }
  if (message.size() > limit_ || coming_ > limit_ + kMostRead) {
    finish({Fault::protocol, "answer exceeds the size limit", "", 0});
    return false;
  }
  if (!codec_.error().empty()) {
    finish(badStream());
    return false;
  }
  return true;
}

Error Channel::badStream() const {
  const std::string guess = guessPeer(first_);
  return {Fault::protocol, guess.empty() ? "bad frame: " + codec_.error() : guess,
          guess.empty() ? "" : kPortHint, 0};
}

Error Channel::endOfStream(int number) const {
  return {Fault::lost, number == 0 ? "the device closed the connection" : systemText(number), "",
          number};
}

void Channel::finish(const Error& error) {
  loop_.forget(socket_.get());
  const auto end = std::move(handlers_.end);
  handlers_ = Handlers();
  socket_.reset();
  if (end) {
    end(error);
  }
}

}  // namespace runel
