// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/push/piece_sizes.h"

#include <algorithm>

#include "client/transfer/parts.h"

namespace runel {
namespace {

constexpr std::size_t kKib = 1024;
constexpr std::size_t kMib = 1024 * kKib;

constexpr std::size_t kFirstPiece = 256 * kKib;
// The device's allocator reuses memory for pieces up to this size.
constexpr std::size_t kSmallPiece = 512 * kKib;
constexpr std::size_t kLargestPiece = 32 * kMib;
constexpr std::uint64_t kShareOfDevice = 8;

constexpr std::size_t kFirstWindow = 512 * kKib;
// What the buffers of the connection hold. The bytes that the line takes until an answer arrives
// come in addition, twice because the line is faster at times.
constexpr std::size_t kAhead = 4 * kMib;
constexpr std::size_t kMostAhead = 64 * kMib;
constexpr int kRoundTripsAhead = 2;

// The bytes of the answer before count half as much.
constexpr double kFading = 0.5;

double secondsOf(PieceSizes::Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

std::size_t wholeBlocks(double bytes) {
  const double blocks = std::min(bytes, static_cast<double>(kLargestPiece)) / kPieceBlock;
  return std::max(static_cast<std::size_t>(blocks), std::size_t{1}) * kPieceBlock;
}

}  // namespace

void PieceSizes::Amount::add(std::size_t moreBytes, double moreSeconds) {
  bytes += static_cast<double>(moreBytes);
  seconds += moreSeconds;
}

double PieceSizes::Amount::rate() const {
  constexpr double kShortest = 1e-6;  // answers that arrive together
  return bytes / std::max(seconds, kShortest);
}

void PieceSizes::setDeviceMemory(std::uint64_t bytes) {
  deviceMost_ =
      static_cast<std::size_t>(std::min<std::uint64_t>(bytes / kShareOfDevice, kLargestPiece));
}

void PieceSizes::begin(Clock::time_point now) {
  last_ = now;
  sinceBegin_ = 0;
}

void PieceSizes::answered(std::size_t bytes, Clock::time_point now) {
  const double seconds = secondsOf(now - last_);
  last_ = now;
  sinceBegin_ += bytes;
  recent_ = {recent_.bytes * kFading, recent_.seconds * kFading};
  recent_.add(bytes, seconds);
}

std::size_t PieceSizes::most() const {
  return wholeBlocks(static_cast<double>(std::min(memory_ / 2, deviceMost_)));
}

std::size_t PieceSizes::next() const {
  if (recent_.bytes == 0) {
    return std::min(kFirstPiece, most());
  }
  const std::size_t wanted = inMemory_ ? kSmallPiece : kLargestPiece;
  return std::min(wholeBlocks(std::min(rate(), static_cast<double>(wanted))), most());
}

std::size_t PieceSizes::window() const {
  const double onTheLine = rate() * secondsOf(roundTrip_) * kRoundTripsAhead;
  const auto enough = static_cast<std::size_t>(
      std::min(onTheLine + static_cast<double>(kAhead), static_cast<double>(kMostAhead)));
  const std::uint64_t begun = kFirstWindow + 2 * sinceBegin_;
  const auto ahead = static_cast<std::size_t>(std::min<std::uint64_t>(begun, enough));
  return std::min(memory_, std::max(2 * next(), ahead));
}

}  // namespace runel
