// SPDX-License-Identifier: Apache-2.0
#include <zell/led_control.h>

#include <algorithm>
#include <cerrno>

#include <zell/slave_proxy.h>

#include "base/system.h"
#include "device/common/program_runner.h"

namespace zell {
namespace {

using std::chrono::nanoseconds;

// The duration of one phase of @p style. Zero for a style with a single phase.
nanoseconds phaseLength(LedStyle::Type style) {
  switch (style) {
    case LedStyle::slow:
    case LedStyle::alternate:
      return std::chrono::milliseconds(500);
    case LedStyle::fast:
      return std::chrono::milliseconds(125);
    default:
      return nanoseconds(0);
  }
}

}  // namespace

LedControl& LedControl::instance() {
  static LedControl control;
  return control;
}

void LedControl::initialize(const SlaveProxy* proxy) {
  if (proxy != nullptr) {
    withdraw(proxy);
    proxies_.push_back(proxy);
  }
}

void LedControl::withdraw(const SlaveProxy* proxy) {
  proxies_.erase(std::remove(proxies_.begin(), proxies_.end(), proxy), proxies_.end());
}

bool LedControl::blinkLeds(LedStyle::Type style) {
  int error = EINVAL;
  if (style > LedStyle::unknown && style <= LedStyle::alternate) {
    // A device may lack one of the LEDs. The other one blinks all the same.
    style_ = style;
    phase_ = true;
    due_ = sys::monotonicTime() + phaseLength(style);
    error = showPhase();
  }
  for (const SlaveProxy* proxy : proxies_) {
    (void)proxy->finish(error);
  }
  return error == 0;
}

void LedControl::poll() {
  reapForgottenPrograms();
  const nanoseconds length = phaseLength(style_);
  if (length == nanoseconds(0)) {
    return;
  }
  const nanoseconds late = sys::monotonicTime() - due_;
  if (late >= nanoseconds(0)) {
    phase_ = !phase_;
    due_ += length * (late / length + 1);
    (void)showPhase();  // no client waits for the result
  }
}

int LedControl::showPhase() const {
  if (proxies_.empty()) {
    return ENODEV;
  }
  const bool lit = style_ != LedStyle::off && phase_;
  return proxies_.back()->driveLeds(lit, style_ == LedStyle::alternate ? !lit : lit);
}

}  // namespace zell
