// SPDX-License-Identifier: Apache-2.0
#include "fleet/fleet_progress.h"

#include <algorithm>
#include <chrono>

#include "output/status_line.h"
#include "output/text.h"

namespace runelctl {
namespace {

// The rate is that of the last seconds, so that it follows the line.
constexpr std::chrono::seconds kRateWindow{10};
constexpr std::chrono::milliseconds kSamplePause{100};

}  // namespace

void FleetProgress::begin(std::size_t index) {
  Part& part = parts_[index];
  done_ -= part.done;
  part.done = 0;
  part.moving = false;
}

// The first amount of an attempt may be that of an earlier one, which is resumed.
void FleetProgress::update(std::size_t index, const Progress& progress) {
  Part& part = parts_[index];
  if (part.moving && progress.done > part.done) {
    moved_ += progress.done - part.done;
  }
  part.moving = true;
  if (!part.known) {
    part.known = true;
    --unknown_;
    ++known_;
  }
  done_ += progress.done - part.done;
  total_ += progress.total - part.total;
  part.done = progress.done;
  part.total = progress.total;
}

void FleetProgress::end(std::size_t index) {
  Part& part = parts_[index];
  total_ -= part.total - part.done;
  part.total = part.done;
  if (!part.known) {
    part.known = true;
    --unknown_;
  }
}

std::uint64_t FleetProgress::expected() const {
  return total_ + (known_ == 0 ? 0 : total_ / known_ * unknown_);
}

double FleetProgress::rate(Time now) {
  if (samples_.empty() || now - samples_.back().time >= kSamplePause) {
    samples_.push_back({now, moved_});
  }
  while (samples_.size() > 2 && now - samples_[1].time > kRateWindow) {
    samples_.pop_front();
  }
  const double passed = std::chrono::duration<double>(now - samples_.front().time).count();
  return passed > 0 ? static_cast<double>(moved_ - samples_.front().moved) / passed : 0;
}

std::string FleetProgress::text(Time now) {
  const double bytesPerSecond = rate(now);
  if (known_ == 0) {
    return "";
  }
  const std::uint64_t all = std::max(expected(), done_);
  std::string text = sizeText(done_) + " of " + sizeText(all);
  if (bytesPerSecond > 0) {
    text += " " + rateText(bytesPerSecond, all - done_);
  }
  return text;
}

}  // namespace runelctl
