// SPDX-License-Identifier: Apache-2.0
#include "gateway/device_channel.h"

#include <algorithm>
#include <cerrno>

#include <sys/socket.h>

#include "protocol/frame_sender.h"

namespace runelctl {
namespace {

using About = runel::LinkEvent::About;

constexpr std::size_t kReadAtOnce = 65536;
// The gateway holds a bounded number of requests for a device, of all its clients.
constexpr std::size_t kMostPending = 32;
constexpr std::size_t kLongestGreeting = 1024;
constexpr std::string_view kAttach = "attach ";
constexpr std::uint64_t kMostGranted = std::uint64_t{1} << 40U;

bool isNotReady(int number) {
  return number == EAGAIN || number == EWOULDBLOCK || number == EINTR;
}

bool pretendsToBeAnEvent(const std::string& head) {
  return !head.empty() && runel::LinkEvent::mayBegin(head.front());
}

}  // namespace

DeviceChannel::DeviceChannel(runel::Loop& loop, ChannelHost& host, std::uint32_t number,
                             zell::UniqueFd socket, std::shared_ptr<runel::DialedLine> line)
    : loop_(loop),
      host_(host),
      number_(number),
      socket_(std::move(socket)),
      line_(std::move(line)) {
  if (!loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t events) { handle(events); })) {
    socket_.reset();  // its peer is told by that
  }
}

DeviceChannel::~DeviceChannel() {
  if (socket_.valid()) {
    loop_.forget(socket_.get());
  }
}

void DeviceChannel::handle(std::uint32_t events) {
  if ((events & EPOLLOUT) != 0) {
    flush();
  }
  if (!socket_.valid()) {
    return;
  }
  if (state_ == State::greeting && (events & EPOLLIN) != 0) {
    readGreeting();
  } else if (mayRead() && (events & EPOLLIN) != 0) {
    read();
  } else if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
    end(told_);
  }
}

// Byte by byte: what follows the line belongs to the device.
void DeviceChannel::readGreeting() {
  char byte = 0;
  ssize_t got = recv(socket_.get(), &byte, 1, MSG_DONTWAIT);
  while (got == 1 && byte != '\n' && device_.size() < kLongestGreeting) {
    device_ += byte;
    got = recv(socket_.get(), &byte, 1, MSG_DONTWAIT);
  }
  if (got < 0 && isNotReady(errno)) {
    return;
  }
  if (got != 1 || byte != '\n' || device_.compare(0, kAttach.size(), kAttach) != 0) {
    end(true);
    return;
  }
  device_.erase(0, kAttach.size());
  state_ = State::waiting;
  watch();
  host_.wanted(*this);
}

bool DeviceChannel::mayRead() const {
  return state_ == State::open && credit_ > 0 && pending_.size() < kMostPending &&
         !host_.congested();
}

void DeviceChannel::read() {
  char bytes[kReadAtOnce];
  const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(credit_, sizeof bytes));
  const ssize_t got = recv(socket_.get(), bytes, most, MSG_DONTWAIT);
  if (got > 0) {
    take(std::string_view(bytes, static_cast<std::size_t>(got)));
    watch();
  } else if (got == 0 || !isNotReady(errno)) {
    end(false);
  }
}

void DeviceChannel::take(std::string_view bytes) {
  for (const FrameWatch::Frame& frame : requests_.follow(bytes)) {
    if (early_ > 0) {
      --early_;
      answered_ = frame.end;
    } else {
      pending_.push_back(frame.end);
    }
  }
  credit_ -= bytes.size();
  given_.emplace_back(host_.give(*this, bytes), requests_.position());
  settle();
}

void DeviceChannel::settle() {
  while (!given_.empty() && given_.front().first <= host_.begun()) {
    line_->gave(given_.front().second);
    given_.pop_front();
  }
}

void DeviceChannel::resume() {
  if (state_ == State::open) {
    settle();
    watch();
  }
}

bool DeviceChannel::attached() {
  if (state_ != State::waiting) {
    return state_ == State::ending;
  }
  state_ = State::open;
  put("ok\n");
  return true;
}

void DeviceChannel::refuse(const runel::Error& why) {
  if (state_ == State::waiting) {
    put(runel::errorLine(why) + "\n");
    end(true);
  }
}

bool DeviceChannel::receive(std::string_view bytes) {
  if (state_ == State::greeting || state_ == State::waiting || bytes.size() > allowed_) {
    return false;
  }
  if (state_ == State::ending) {
    return true;
  }
  allowed_ -= bytes.size();
  const std::vector<FrameWatch::Frame> frames = answers_.follow(bytes);
  const bool forged = pretendsToBeAnEvent(answers_.head()) ||
                      std::any_of(frames.begin(), frames.end(), [](const FrameWatch::Frame& frame) {
                        return pretendsToBeAnEvent(frame.head);
                      });
  if (forged) {
    line_->end({runel::Kind::link, runel::Cause::protocol, "malformed answer: not a task record"});
    end(false);
    return true;
  }
  for (std::size_t i = 0; i < frames.size() && endOldest(); ++i) {
  }
  taken_ += bytes.size();
  put(bytes);
  return true;
}

// What malformed bytes and further answers mean is told by the reader of the socket.
bool DeviceChannel::endOldest() {
  if (pending_.empty()) {
    return false;
  }
  answered_ = pending_.front();
  line_->gave(std::max(line_->given(), answered_));
  pending_.pop_front();
  return true;
}

bool DeviceChannel::addCredit(std::uint64_t bytes) {
  if (state_ == State::greeting || state_ == State::waiting || credit_ + bytes > kMostGranted) {
    return false;
  }
  credit_ += bytes;
  watch();
  return true;
}

bool DeviceChannel::failed(const runel::Error& why) {
  if (state_ == State::ending) {
    return true;
  }
  if (state_ != State::open || answers_.within()) {
    return false;
  }
  if (!endOldest()) {
    if (!requests_.within() || early_ > 0) {
      return false;
    }
    early_ = 1;
  }
  tell(About::oldest, why);
  return true;
}

bool DeviceChannel::sent() {
  if (state_ == State::ending) {
    return true;
  }
  if (state_ != State::open || answers_.within() || !endOldest()) {
    return false;
  }
  tell(About::sent, runel::Error(runel::Kind::link, runel::Cause::other, ""));
  return true;
}

bool DeviceChannel::progress() {
  if (state_ == State::open && !answers_.within()) {
    tell(About::progress, runel::Error(runel::Kind::link, runel::Cause::other, ""));
  }
  return true;
}

// The gateway has told before what became of each request that it has received.
bool DeviceChannel::lost(const runel::Error& why) {
  if (state_ == State::greeting || state_ == State::waiting) {
    return false;
  }
  if (state_ == State::open) {
    given_.clear();
    line_->gave(answered_);
    line_->end(why);
    end(true);
  }
  return true;
}

void DeviceChannel::cut(const runel::Error& why) {
  if (state_ == State::open) {
    settle();
    given_.clear();
    line_->end(why);
    end(true);
  }
}

void DeviceChannel::tell(About about, const runel::Error& error) {
  const std::string payload = runel::LinkEvent{about, error}.payload();
  put(zell::frameHead(payload.size()) + payload);
}

void DeviceChannel::put(std::string_view bytes) {
  out_.append(bytes);
  flush();
}

void DeviceChannel::flush() {
  while (socket_.valid() && !out_.empty()) {
    const ssize_t taken =
        ::send(socket_.get(), out_.data(), out_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (taken < 0 && isNotReady(errno)) {
      break;
    }
    if (taken < 0) {
      out_.clear();
      end(told_);
      return;
    }
    out_.erase(0, static_cast<std::size_t>(taken));
  }
  const std::size_t granted = taken_ - std::min(taken_, out_.size());
  if (state_ == State::open && granted >= kFirstCredit / 4) {
    taken_ -= granted;
    allowed_ += granted;
    host_.grant(*this, granted);
  }
  if (state_ == State::ending && out_.empty()) {
    end(told_);
    return;
  }
  watch();
}

// What was received is still given to the socket.
void DeviceChannel::end(bool told) {
  told_ = told_ || told;
  if (!out_.empty() && state_ != State::ending) {
    state_ = State::ending;
    watch();
    return;
  }
  if (socket_.valid()) {
    loop_.forget(socket_.get());
    socket_.reset();
    out_.clear();
    state_ = State::ending;
    host_.over(*this, told_);
  }
}

void DeviceChannel::watch() {
  const bool reads = state_ == State::greeting || mayRead();
  const std::uint32_t wanted =
      (reads ? std::uint32_t{EPOLLIN} : 0U) | (out_.empty() ? 0U : std::uint32_t{EPOLLOUT});
  // With thousands of channels most calls change nothing.
  if (socket_.valid() && wanted != watched_) {
    watched_ = wanted;
    loop_.change(socket_.get(), wanted);
  }
}

}  // namespace runelctl
