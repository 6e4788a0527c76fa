// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/push/packing.h"

#include <algorithm>
#include <limits>

namespace runel {
namespace {

constexpr double kSlowLine = 5e6;  // bytes per second
// A piece is compressed at once, and the loop waits.
constexpr std::size_t kMostPacked = 1048576;
constexpr std::size_t kTriedPlain = 262144;
// The bytes from which the speed of compressed pieces is known well enough.
constexpr double kEnough = 2.0 * kMostPacked;

}  // namespace

double Packing::Amount::rate() const {
  constexpr double kShortest = 1e-6;  // answers that arrive together
  return bytes / std::max(seconds, kShortest);
}

// Another file may be compressed better.
void Packing::begin(Clock::time_point now) {
  last_ = now;
  packed_ = Amount();
}

void Packing::answered(std::size_t bytes, bool packed, Clock::time_point now) {
  Amount& amount = packed ? packed_ : plain_;
  amount.bytes += static_cast<double>(bytes);
  amount.seconds += std::chrono::duration<double>(now - last_).count();
  last_ = now;
}

bool Packing::maySave() const {
  return on_ && (onAnyLine_ || (plain_.bytes > 0 && plain_.rate() < kSlowLine));
}

// One piece is enough to compare with.
bool Packing::triesPlain() const {
  return !plainSent_ && packed_.bytes >= kEnough;
}

bool Packing::next() const {
  const bool slower = packed_.bytes >= kEnough && packed_.rate() < plain_.rate();
  return state_ == State::unpacks && maySave() && !slower && !triesPlain();
}

std::size_t Packing::most() const {
  if (state_ == State::unpacks && triesPlain()) {
    return kTriedPlain;
  }
  const bool small = next() || asks() || state_ == State::asked;
  return small ? kMostPacked : std::numeric_limits<std::size_t>::max();
}

}  // namespace runel
