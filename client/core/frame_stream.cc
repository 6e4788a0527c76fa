// SPDX-License-Identifier: Apache-2.0
#include "client/core/frame_stream.h"

#include <algorithm>
#include <utility>

#include "client/core/peer_guess.h"
#include "protocol/frame_sender.h"

namespace runel {
namespace {

constexpr std::size_t kFirstBytes = 64;
// Short frames share a buffer, so that a few system calls send a thousand small requests.
constexpr std::size_t kShared = 32768;
constexpr std::size_t kReadAtOnce = 262144;
// At the end of a record it is a digit.
constexpr char kNoDigit = '!';

}  // namespace

void FrameStream::send(OutgoingPayload payload) {
  const std::string head = zell::frameHead(payload.size());
  queued_ += head.size() + payload.size();
  everQueued_ += head.size() + payload.size();
  if (payload.size() < kShared && payload.content.size == 0) {
    queueShort(head, payload.head + payload.tail);
    return;
  }
  out_.push_back({head, {}, 0});
  queueLong(std::move(payload));
}

void FrameStream::queueShort(const std::string& head, const std::string& payload) {
  const bool shared = out_.size() > 1 && out_.back().unread() == 0 &&
                      out_.back().bytes.size() + payload.size() < kShared;
  if (!shared) {
    out_.emplace_back();
  }
  out_.back().bytes.append(head).append(payload);
}

void FrameStream::queueLong(OutgoingPayload&& payload) {
  out_.push_back({std::move(payload.head), {}, 0});
  if (payload.content.size > 0) {
    out_.push_back({"", std::move(payload.content), 0});
  }
  out_.push_back({std::move(payload.tail), {}, 0});  // later frames may follow in it
}

// What follows unread bytes is sent after them.
std::vector<std::string_view> FrameStream::outgoing(std::size_t most) const {
  std::vector<std::string_view> parts;
  for (auto part = out_.begin(); part != out_.end() && parts.size() < most; ++part) {
    parts.push_back(std::string_view(part->bytes).substr(parts.empty() ? sent_ : 0));
    if (part->unread() > 0) {
      break;
    }
  }
  return parts;
}

void FrameStream::sent(std::size_t bytes) {
  queued_ -= bytes;
  sent_ += bytes;
  while (!out_.empty() && !unreadable_ && sent_ >= out_.front().bytes.size()) {
    sent_ -= out_.front().bytes.size();
    if (out_.front().unread() > 0) {
      readOn(out_.front());
    } else {
      out_.pop_front();
    }
  }
}

void FrameStream::readOn(Part& part) {
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(part.unread(), kReadAtOnce));
  part.late.read(part.offset, count, part.bytes);
  part.offset += count;
  unreadable_ = part.bytes.size() != count;
}

// A frame that is not sent is in whole parts, and in bytes of parts that it shares with others.
void FrameStream::remove(std::uint64_t begin, std::uint64_t end) {
  std::uint64_t at = firstPosition();
  for (Part& part : out_) {
    const std::uint64_t next = at + part.bytes.size() + part.unread();
    const std::uint64_t from = std::max(at, begin);
    const std::uint64_t to = std::min(next, end);
    if (from < to && part.unread() > 0) {
      part = Part();
    } else if (from < to) {
      part.bytes.erase(static_cast<std::size_t>(from - at), static_cast<std::size_t>(to - from));
    }
    at = next;
  }
  queued_ -= static_cast<std::size_t>(end - begin);
  everQueued_ -= end - begin;
  sent(0);  // the first part has bytes
}

void FrameStream::spoil(std::uint64_t end) {
  std::uint64_t at = firstPosition();
  for (Part& part : out_) {
    const std::uint64_t next = at + part.bytes.size() + part.unread();
    if (end <= next) {
      part.bytes[static_cast<std::size_t>(end - 1 - at)] = kNoDigit;
      return;
    }
    at = next;
  }
}

void FrameStream::receive(const std::string& bytes) {
  if (!complete_) {
    first_.append(bytes, 0, kFirstBytes - std::min(first_.size(), kFirstBytes));
  }
  if (!store_) {
    codec_.acceptBytes(bytes);
    return;
  }
  const std::size_t part = std::min(missing_, bytes.size());
  store_->add(std::string_view(bytes).substr(0, part));
  missing_ -= part;
  if (part < bytes.size()) {
    codec_.acceptBytes(bytes.substr(part));
  }
}

// The codec has received nothing complete before the payload that is in the store.
std::optional<std::string> FrameStream::nextPayload() {
  if (store_) {
    return missing_ == 0 ? storedPayload() : std::nullopt;
  }
  std::string payload;
  if (tooLong_ || !codec_.recvMessage(payload)) {
    tooLong_ = tooLong_ || codec_.announced() > limit_;
    beginStoring();
    return std::nullopt;
  }
  if (payload.size() > limit_) {
    tooLong_ = true;
    return std::nullopt;
  }
  if (!std::exchange(complete_, true)) {
    std::string().swap(first_);  // releases the memory, which an assignment would keep
  }
  return payload;
}

void FrameStream::beginStoring() {
  const std::size_t length = codec_.announced();
  if (!tooLong_ && makeStore_ && length >= least_) {
    std::string begin;
    missing_ = codec_.takeIncomplete(begin);
    store_ = makeStore_(length);
    store_->add(begin);
  }
}

std::optional<std::string> FrameStream::storedPayload() {
  std::optional<std::string> payload = store_->take();
  store_.reset();
  lost_ = !payload;
  return payload;
}

std::optional<Error> FrameStream::error() const {
  if (tooLong_) {
    return Error(Kind::link, Cause::protocol, "answer exceeds the size limit");
  }
  if (lost_) {
    return Error(Kind::local, Cause::other, "cannot read the temporary file of the answer");
  }
  if (codec_.error().empty()) {
    return std::nullopt;
  }
  const std::string guess = guessPeer(first_);
  if (!guess.empty()) {
    return Error(Kind::link, Cause::wrongPeer, guess);
  }
  return Error(Kind::link, Cause::protocol, "bad frame: " + codec_.error());
}

}  // namespace runel
