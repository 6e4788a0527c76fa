// SPDX-License-Identifier: Apache-2.0
#include "gateway/multiplexer.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <utility>

namespace runelctl {
namespace {

// Above the first, channels pause; below the second, they continue.
constexpr std::size_t kMostQueued = 1048576;
constexpr std::size_t kFewQueued = 262144;
constexpr std::size_t kNumberBytes = 4;
constexpr std::size_t kMostListed = 100000;
constexpr std::size_t kMostParts = 10000;
constexpr runel::Milliseconds kFirstPause{100};
constexpr runel::Milliseconds kLongestPause{5000};

// Whether another attempt would fail for the same reason.
bool isLasting(const runel::Error& error) {
  return error.kind() == runel::Kind::local || !error.transient() ||
         error.number() == EKEYREJECTED || error.number() == EPROTO;
}

// Many programs lose a gateway at the same time.
runel::Milliseconds scattered(runel::Milliseconds pause) {
  static std::minstd_rand random{std::random_device()()};
  return runel::Milliseconds(std::uniform_int_distribution<runel::Milliseconds::rep>(
      pause.count() / 2, pause.count())(random));
}

}  // namespace

Multiplexer::Multiplexer(runel::Loop& loop, const MultiplexerOptions& options, WebSocketMaker make)
    : loop_(loop), options_(options), make_(std::move(make)) {}

Multiplexer::~Multiplexer() {
  loop_.cancel(timer_);
}

void Multiplexer::take(zell::UniqueFd socket, std::shared_ptr<runel::DialedLine> line) {
  const std::uint32_t number = ++lastNumber_;
  channels_[number] =
      std::make_unique<DeviceChannel>(loop_, *this, number, std::move(socket), std::move(line));
}

void Multiplexer::list(const std::string& query, std::function<void(Listed)> done) {
  const std::uint32_t number = ++lastNumber_;
  lists_[number] = {query, std::move(done)};
  if (link_ == Link::open) {
    sendText(listText(query, number, ""));
  } else {
    need();
  }
}

void Multiplexer::wanted(DeviceChannel& channel) {
  if (link_ == Link::open) {
    announce(channel);
  } else {
    need();
  }
}

std::uint64_t Multiplexer::give(DeviceChannel& channel, std::string_view bytes) {
  std::string message;
  message.reserve(kNumberBytes + bytes.size());
  for (int shift = 24; shift >= 0; shift -= 8) {
    message += static_cast<char>(channel.number() >> static_cast<unsigned>(shift) & 255U);
  }
  message.append(bytes);
  const std::uint64_t number = socket_->send(std::move(message), true);
  congested_ = congested_ || socket_->queued() > kMostQueued;
  return number;
}

std::uint64_t Multiplexer::begun() const {
  return socket_ ? socket_->begun() : 0;
}

bool Multiplexer::congested() const {
  return congested_ || link_ != Link::open;
}

void Multiplexer::grant(DeviceChannel& channel, std::size_t bytes) {
  if (link_ == Link::open) {
    sendText(creditText(channel.number(), bytes));
  }
}

// The channel is on the stack.
void Multiplexer::over(DeviceChannel& channel, bool told) {
  const auto found = channels_.find(channel.number());
  if (announced_.erase(channel.number()) > 0 && link_ == Link::open && !told) {
    sendText(detachText(channel.number()));
  }
  std::shared_ptr<DeviceChannel> gone = std::move(found->second);
  channels_.erase(found);
  loop_.next([gone = std::move(gone)] { (void)gone; });
}

void Multiplexer::sendText(std::string text) {
  (void)socket_->send(std::move(text), false);  // text is small, and needs no account
}

void Multiplexer::announce(const DeviceChannel& channel) {
  announced_.insert(channel.number());
  sendText(attachText(channel.number(), channel.device(), options_.deadline));
}

void Multiplexer::need() {
  if (link_ == Link::none) {
    open();
  }
}

void Multiplexer::open() {
  link_ = Link::opening;
  closing_.reset();
  congested_ = false;
  WebSocket::Handlers handlers;
  const auto current = [this, generation = ++generation_] { return generation == generation_; };
  handlers.opened = [this, current] {
    if (current()) {
      opened();
    }
  };
  handlers.message = [this, current](const std::string& message, bool binary) {
    if (current()) {
      received(message, binary);
    }
  };
  handlers.sent = [this, current] {
    if (current()) {
      resumeAll();
    }
  };
  handlers.closed = [this, current](const runel::Error& why) {
    if (current()) {
      closed(closing_.value_or(why));
    }
  };
  socket_ = make_(std::move(handlers));
}

void Multiplexer::opened() {
  link_ = Link::open;
  everOpen_ = true;
  for (const auto& [number, channel] : channels_) {
    if (channel->waits()) {
      announce(*channel);
    }
  }
  for (auto& [number, list] : lists_) {
    list.devices.clear();
    list.parts = 0;
    sendText(listText(list.query, number, ""));
  }
}

void Multiplexer::resumeAll() {
  congested_ = congested_ && socket_->queued() > kFewQueued;
  for (const auto& [number, channel] : channels_) {
    channel->resume();
  }
}

void Multiplexer::received(const std::string& message, bool binary) {
  pause_ = runel::Milliseconds(0);  // it works
  if (binary) {
    if (!takeBytes(message)) {
      violated("data without credit or for an unknown channel");
    }
    return;
  }
  const std::optional<AttachMessage> parsed = parseAttachMessage(message);
  if (!parsed) {
    violated("malformed message");
  } else if (!takeMessage(*parsed)) {
    violated("unexpected message");
  }
}

// A channel may have ended while its bytes were on their way.
bool Multiplexer::takeBytes(std::string_view message) {
  if (message.size() < kNumberBytes) {
    return false;
  }
  std::uint32_t number = 0;
  for (const char byte : message.substr(0, kNumberBytes)) {
    number = number << 8U | static_cast<unsigned char>(byte);
  }
  const auto found = channels_.find(number);
  return found == channels_.end() ? number != 0 && number <= lastNumber_
                                  : found->second->receive(message.substr(kNumberBytes));
}

bool Multiplexer::takeMessage(const AttachMessage& message) {
  using Type = AttachMessage::Type;
  if (message.type == Type::other) {
    return true;
  }
  if (message.type == Type::devices) {
    return takeDevices(message);
  }
  if (message.type == Type::error) {
    return takeError(message);
  }
  const auto found = channels_.find(message.number);
  if (found == channels_.end()) {
    return message.number <= lastNumber_;
  }
  DeviceChannel& channel = *found->second;
  switch (message.type) {
    case Type::attached:
      return channel.attached();
    case Type::refused:
      channel.refuse(message.error);
      return true;
    case Type::credit:
      return channel.addCredit(message.bytes);
    case Type::failed:
      return channel.failed(message.error);
    case Type::sent:
      return channel.sent();
    case Type::progress:
      return channel.progress();
    default:
      return channel.lost(message.error);
  }
}

bool Multiplexer::takeDevices(const AttachMessage& message) {
  const auto found = lists_.find(message.number);
  if (found == lists_.end()) {
    return message.number <= lastNumber_;
  }
  List& list = found->second;
  list.devices.insert(list.devices.end(), message.devices.begin(), message.devices.end());
  if (list.devices.size() > kMostListed || ++list.parts > kMostParts) {
    return false;
  }
  if (message.cursor.empty()) {
    finishList(message.number, std::move(list.devices));
  } else {
    sendText(listText(list.query, message.number, message.cursor));
  }
  return true;
}

bool Multiplexer::takeError(const AttachMessage& message) {
  if (message.number == 0) {
    closing_ = message.error;
    return true;
  }
  finishList(message.number, message.error);
  return message.number <= lastNumber_;
}

void Multiplexer::finishList(std::uint32_t number, const Listed& result) {
  const auto found = lists_.find(number);
  if (found != lists_.end()) {
    const auto done = std::move(found->second.done);
    lists_.erase(found);
    done(result);
  }
}

void Multiplexer::violated(const std::string& how) {
  closed({runel::Kind::link, runel::Cause::protocol,
          "the gateway violates the attach protocol: " + how});
}

// What is not attached, and lists, are tried again after a loss, unless it is of no use.
void Multiplexer::closed(const runel::Error& why) {
  const bool wasOpen = link_ == Link::open;
  link_ = Link::none;
  ++generation_;
  announced_.clear();
  std::vector<std::uint32_t> numbers;
  for (const auto& [number, channel] : channels_) {
    numbers.push_back(number);
  }
  for (const std::uint32_t number : numbers) {
    const auto found = channels_.find(number);
    if (found != channels_.end()) {
      found->second->cut(why);
    }
  }
  // The WebSocket is on the stack.
  loop_.next([gone = std::shared_ptr<WebSocket>(std::move(socket_))] { (void)gone; });
  if (isLasting(why) || (!wasOpen && !everOpen_)) {
    refuseWaiting(why, runel::Clock::time_point::max());
  } else {
    pause(why);
  }
}

void Multiplexer::pause(const runel::Error& why) {
  const runel::Milliseconds now = pause_ == runel::Milliseconds(0) ? kFirstPause : pause_;
  pause_ = std::min(kLongestPause, now * 2);
  const runel::Milliseconds wait = scattered(now);
  // What would reach its limit meanwhile gets the reason instead.
  refuseWaiting(why, runel::Clock::now() + wait - options_.connectTimeout);
  link_ = Link::pausing;
  timer_ = loop_.after(wait, [this] {
    link_ = Link::none;
    if (someoneWaits()) {
      open();
    }
  });
}

bool Multiplexer::someoneWaits() const {
  return !lists_.empty() || std::any_of(channels_.begin(), channels_.end(),
                                        [](const auto& one) { return one.second->waits(); });
}

void Multiplexer::refuseWaiting(const runel::Error& why, runel::Clock::time_point before) {
  std::vector<std::uint32_t> numbers;
  for (const auto& [number, channel] : channels_) {
    if (channel->waits() && channel->since() < before) {
      numbers.push_back(number);
    }
  }
  for (const std::uint32_t number : numbers) {
    const auto found = channels_.find(number);
    if (found != channels_.end()) {
      found->second->refuse(why);
    }
  }
  std::vector<std::uint32_t> lists;
  for (const auto& [number, list] : lists_) {
    if (list.since < before) {
      lists.push_back(number);
    }
  }
  for (const std::uint32_t number : lists) {
    finishList(number, why);
  }
}

}  // namespace runelctl
