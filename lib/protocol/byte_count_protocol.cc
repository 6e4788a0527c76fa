// SPDX-License-Identifier: Apache-2.0
#include <zell/byte_count_protocol.h>

#include <algorithm>
#include <climits>
#include <cstdio>

#include <sys/socket.h>
#include <syslog.h>

#include "base/blank.h"
#include "base/log.h"
#include "protocol/frame_sender.h"
#include "protocol/protocol.h"

namespace zell {
namespace {

constexpr char kCountTooLong[] = "a count of more than 9 digits";
constexpr char kCountTooHigh[] = "a count above 268435456";
static_assert(contains(kCountTooLong, kMaxCountDigits));
static_assert(contains(kCountTooHigh, kMaxFramePayload));

// Spare buffers for later messages, so that small messages need no allocation. They hold at most 64
// KiB for each connection.
constexpr std::size_t kSpareSlots = 64;
constexpr std::size_t kSpareBytes = 1024;

// Makes room for @p part more bytes of a payload of @p whole bytes. Grows with the bytes received,
// not with the announced length: nine digits can claim a quarter of a gigabyte. Each step is a
// quarter of the whole, so all copies together are a third of it and the last buffer fits exactly.
void makeRoom(std::string& payload, std::size_t part, std::size_t whole) {
  const std::size_t needed = payload.size() + part;
  if (needed > payload.capacity()) {
    std::size_t room = whole;
    while (room / 4 >= needed) {
      room /= 4;
    }
    payload.reserve(room);
  }
}

}  // namespace

ByteCountProtocol::ByteCountProtocol(int socket) : socket_(socket) {}

ByteCountProtocol::~ByteCountProtocol() = default;

void ByteCountProtocol::acceptBytes(const std::string& bytes) {
  std::string_view rest = bytes;
  while (!rest.empty() && state_ != State::bad) {
    if (state_ == State::payload) {
      acceptPayload(rest);
    } else if (state_ == State::count) {
      acceptCount(rest);
    } else {
      acceptMarker(rest);
    }
  }
}

// Skips whitespace before every frame: the server passes on a first packet with leading whitespace.
void ByteCountProtocol::acceptMarker(std::string_view& bytes) {
  bytes.remove_prefix(std::min(bytes.find_first_not_of(kBlanks), bytes.size()));
  if (bytes.empty()) {
    return;
  }
  if (bytes.front() != kFrameStart) {
    char what[64];
    std::snprintf(what, sizeof what, "byte 0x%02x where a frame must begin",
                  static_cast<unsigned>(static_cast<unsigned char>(bytes.front())));
    fail(what);
    return;
  }
  bytes.remove_prefix(1);
  digits_ = 0;
  missing_ = 0;
  state_ = State::count;
}

void ByteCountProtocol::acceptCount(std::string_view& bytes) {
  while (!bytes.empty() && state_ == State::count) {
    const char byte = bytes.front();
    bytes.remove_prefix(1);
    if (byte == kCountEnd) {
      beginPayload();
    } else {
      acceptDigit(byte);
    }
  }
}

void ByteCountProtocol::acceptDigit(char byte) {
  if (byte < '0' || byte > '9') {
    char what[64];
    std::snprintf(what, sizeof what, "byte 0x%02x in a count",
                  static_cast<unsigned>(static_cast<unsigned char>(byte)));
    fail(what);
  } else if (digits_ == kMaxCountDigits) {
    fail(kCountTooLong);
  } else if (digits_ != 0 && missing_ == 0) {
    fail("a count with a leading zero");
  } else {
    ++digits_;
    missing_ = missing_ * 10 + static_cast<std::size_t>(byte - '0');
    if (missing_ > kMaxFramePayload) {
      fail(kCountTooHigh);
    }
  }
}

void ByteCountProtocol::beginPayload() {
  if (digits_ == 0) {
    fail("an empty count");
    return;
  }
  if (coming_ == slots_.size() && next_ > coming_ / 2) {
    // Most slots are spare: reuse them instead of adding more.
    const auto waiting = slots_.begin() + static_cast<std::ptrdiff_t>(next_);
    std::rotate(slots_.begin(), waiting, slots_.end());
    coming_ -= next_;
    next_ = 0;
  }
  if (coming_ == slots_.size()) {
    slots_.emplace_back();
  }
  slots_[coming_].clear();
  state_ = State::payload;
  if (missing_ == 0) {
    finishPayload();
  }
}

void ByteCountProtocol::acceptPayload(std::string_view& bytes) {
  std::string& message = slots_[coming_];
  const std::size_t part = std::min(missing_, bytes.size());
  makeRoom(message, part, message.size() + missing_);
  message.append(bytes.data(), part);
  bytes.remove_prefix(part);
  missing_ -= part;
  if (missing_ == 0) {
    finishPayload();
  }
}

void ByteCountProtocol::finishPayload() {
  ++coming_;
  state_ = State::marker;
}

// Shuts down the reading side, so that the server's next read finds the end and drops the
// connection. Until then the server reads and ignores what the peer sends.
void ByteCountProtocol::fail(const char* what) {
  state_ = State::bad;
  error_ = what;
  if (socket_ == kNoSocket) {
    return;
  }
  logLine(LOG_ERR, "acceptBytes: bad frame on socket %d, %s", socket_, what);
  (void)shutdown(socket_, SHUT_RD);  // failure is harmless: the peer has disconnected
}

bool ByteCountProtocol::recvMessage(std::string& message) {
  if (!dataAvailable()) {
    return false;
  }
  std::string& slot = slots_[next_];
  message.swap(slot);
  if (slot.capacity() > kSpareBytes) {
    std::string().swap(slot);
  }
  ++next_;
  if (!dataAvailable() && slots_.size() > kSpareSlots) {
    dropSpareSlots();
  }
  return true;
}

std::size_t ByteCountProtocol::takeIncomplete(std::string& part) {
  part.clear();
  if (state_ != State::payload) {
    return 0;
  }
  part.swap(slots_[coming_]);
  state_ = State::marker;
  return missing_;
}

void ByteCountProtocol::releaseSpare() {
  if (isBetweenMessages()) {
    next_ = 0;
    coming_ = 0;
    std::vector<std::string>().swap(slots_);
  }
}

// Releases the memory of a burst of small messages. Keeps the received part of the next message.
void ByteCountProtocol::dropSpareSlots() {
  if (coming_ < slots_.size()) {
    slots_.front().swap(slots_[coming_]);
  }
  next_ = 0;
  coming_ = 0;
  slots_.resize(kSpareSlots);
  slots_.shrink_to_fit();
}

bool ByteCountProtocol::sendMessage(std::string_view head, std::string_view body,
                                    std::string_view tail) {
  const FramePayload payload{head, body, tail};
  if (payload.size() > kMaxFramePayload) {
    const auto shown = std::min<std::size_t>(payload.size(), INT_MAX);
    logLine(LOG_ERR, "sendMessage: message too long, %d bytes", static_cast<int>(shown));
    return false;
  }
  if (!sendFrame(socket_, payload)) {
    logLine(LOG_ERR, "sendMessage: socket %d, %m", socket_);
    (void)shutdown(socket_, SHUT_RDWR);  // failure is harmless: the peer has disconnected
    return false;
  }
  return true;
}

}  // namespace zell
