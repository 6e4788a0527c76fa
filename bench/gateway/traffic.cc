// SPDX-License-Identifier: Apache-2.0
#include "traffic.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace runel::bench {
namespace {

constexpr Milliseconds kTick{1};
constexpr double kNanosPerMicro = 1000.0;

double secondsBetween(Clock::time_point begin, Clock::time_point end) {
  return std::chrono::duration<double>(end - begin).count();
}

double percentile(std::vector<std::uint64_t>& times, double part) {
  if (times.empty()) {
    return 0;
  }
  const auto place = static_cast<std::size_t>(part * static_cast<double>(times.size() - 1));
  std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(place), times.end());
  return static_cast<double>(times[place]) / kNanosPerMicro;
}

}  // namespace

Traffic::Traffic(Loop& loop, Way& way, const Plan& plan)
    : loop_(loop), way_(way), plan_(plan), asked_(plan.devices), next_(plan.slow) {
  times_.reserve(plan.requests);
}

void Traffic::start() {
  opened_ = Clock::now();
  const auto ready = [this] {
    std::printf("{\"ready\": true, \"devices\": %zu, \"seconds\": %.3f}\n", plan_.devices,
                secondsBetween(opened_, Clock::now()));
    (void)std::fflush(stdout);
    if (plan_.requests == 0) {
      return;  // until the end of standard input
    }
    begin_ = Clock::now();
    for (std::size_t device = 0; device < plan_.slow; ++device) {
      way_.ask(device);
    }
    plan_.rate == 0 ? askSome() : tick();
  };
  way_.open(ready, [this](std::size_t device, bool good) { answered(device, good); });
}

void Traffic::answered(std::size_t device, bool good) {
  failed_ += good ? 0 : 1;
  if (device < plan_.slow) {
    ++slowAnswers_;
    way_.ask(device);
    return;
  }
  end_ = Clock::now();
  times_.push_back(static_cast<std::uint64_t>((end_ - asked_[device]).count()));
  asked_[device] = {};
  --under_;
  if (times_.size() == plan_.requests) {
    loop_.stop();
  } else if (plan_.rate == 0) {
    askSome();
  }
}

void Traffic::askSome() {
  while (under_ < plan_.window && sent_ < plan_.requests) {
    askNext();
  }
}

// A device that has not answered yet is passed over.
void Traffic::askNext() {
  const std::size_t others = plan_.devices - plan_.slow;
  for (std::size_t tried = 0; tried < others; ++tried) {
    const std::size_t device = next_;
    next_ = next_ + 1 == plan_.devices ? plan_.slow : next_ + 1;
    if (asked_[device] == Clock::time_point()) {
      asked_[device] = Clock::now();
      ++sent_;
      ++under_;
      way_.ask(device);
      return;
    }
  }
  ++late_;
}

void Traffic::tick() {
  const auto due = static_cast<std::size_t>(secondsBetween(begin_, Clock::now()) *
                                            static_cast<double>(plan_.rate));
  for (std::size_t missing = std::min(due, plan_.requests); missing > sent_ + late_; --missing) {
    askNext();
  }
  if (sent_ < plan_.requests) {
    late_ = 0;
    loop_.after(kTick, [this] { tick(); });
  }
}

std::string Traffic::report() {
  const double seconds = secondsBetween(begin_, end_);
  char line[512];
  (void)std::snprintf(line, sizeof line,
                      "{\"requests\": %zu, \"failed\": %ju, \"slow_answers\": %ju, \"seconds\": "
                      "%.3f, \"rate\": %.1f, \"p50_us\": %.1f, \"p99_us\": %.1f}",
                      times_.size(), static_cast<std::uintmax_t>(failed_),
                      static_cast<std::uintmax_t>(slowAnswers_), seconds,
                      static_cast<double>(times_.size()) / seconds, percentile(times_, 0.5),
                      percentile(times_, 0.99));
  return line;
}

}  // namespace runel::bench
