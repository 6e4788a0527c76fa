// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/push/packing.h"

#include <algorithm>
#include <limits>

namespace runel {
namespace {

constexpr double kSlowLine = 5e6;  // bytes per second
// A piece is compressed at once, and the loop waits.
constexpr std::size_t kMostPacked = 1048576;
constexpr std::size_t kShortTrial = 262144;
// The bytes from which the speed of compressed pieces is known well enough.
constexpr double kEnough = 2.0 * kMostPacked;
// The content of a file may change.
constexpr double kRemembered = 16.0 * kMostPacked;

}  // namespace

bool Packing::Amount::known() const {
  return answered >= kEnough;
}

double Packing::Amount::rate() const {
  constexpr double kShortest = 1e-6;  // answers that arrive together
  return answered / std::max(seconds, kShortest);
}

// Another file may be compressed better. What was slower than another compression is not tried with
// each file: a directory may have many of a single piece.
void Packing::begin(Clock::time_point now) {
  last_ = now;
  if (fastest() == Packer::none) {
    amount(Packer::gzip) = Amount();
    amount(Packer::bzip2) = Amount();
  }
}

void Packing::sent(std::size_t bytes, Packer packer) {
  amount(packer).sent += static_cast<double>(bytes);
}

void Packing::answered(std::size_t bytes, Packer packer, Clock::time_point now) {
  Amount& known = amount(packer);
  const double kept = std::min(1.0, kRemembered / std::max(known.answered, 1.0));
  known.answered = known.answered * kept + static_cast<double>(bytes);
  known.seconds = known.seconds * kept + std::chrono::duration<double>(now - last_).count();
  last_ = now;
}

void Packing::setUnpacks(bool gzip, bool bzip2) {
  state_ = gzip ? State::unpacks : State::cannot;
  bzip2_ = bzip2;
}

bool Packing::maySave() const {
  const Amount& plain = amount(Packer::none);
  return on_ && (onAnyLine_ || (plain.answered > 0 && plain.rate() < kSlowLine));
}

// One piece is enough to compare with.
bool Packing::triesPlain() const {
  return amount(Packer::none).sent == 0 && amount(Packer::gzip).known();
}

// After gzip and with a short piece first, because bzip2 takes a weak device much more time.
bool Packing::triesBzip2Shortly() const {
  return bzip2_ && amount(Packer::gzip).sent >= kEnough && amount(Packer::bzip2).sent < kShortTrial;
}

// A short piece shows less of the speed, because each piece costs some requests. Where gzip is too
// slow for the line, bzip2 is too.
bool Packing::triesBzip2() const {
  const Amount& gzip = amount(Packer::gzip);
  const Amount& bzip2 = amount(Packer::bzip2);
  const bool promising = bzip2.answered > 0 && gzip.known() && bzip2.rate() >= gzip.rate() / 2 &&
                         gzip.rate() >= amount(Packer::none).rate();
  return promising && bzip2.sent < kEnough;
}

Packer Packing::fastest() const {
  const Amount& gzip = amount(Packer::gzip);
  const Amount& bzip2 = amount(Packer::bzip2);
  if (!gzip.known()) {
    return Packer::gzip;
  }
  const bool smaller = bzip2.known() && bzip2.rate() > gzip.rate();
  const double packed = smaller ? bzip2.rate() : gzip.rate();
  if (packed < amount(Packer::none).rate()) {
    return Packer::none;
  }
  return smaller ? Packer::bzip2 : Packer::gzip;
}

Packer Packing::next() const {
  if (state_ != State::unpacks || !maySave() || triesPlain()) {
    return Packer::none;
  }
  return triesBzip2Shortly() || triesBzip2() ? Packer::bzip2 : fastest();
}

std::size_t Packing::most() const {
  if (state_ == State::unpacks && (triesPlain() || triesBzip2Shortly())) {
    return kShortTrial;
  }
  const bool small = next() != Packer::none || asks() || state_ == State::asked;
  return small ? kMostPacked : std::numeric_limits<std::size_t>::max();
}

}  // namespace runel
