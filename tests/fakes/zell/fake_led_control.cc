// SPDX-License-Identifier: Apache-2.0
// The recording LED controller, and functions of the Linux library that need no system call.
#include <zell/led_control.h>

#include <algorithm>
#include <cerrno>

#include <zell/device_type.h>
#include <zell/file_tree_walker.h>
#include <zell/slave_proxy.h>

#include "fakes/zell/fake_program_runner.h"

namespace zell {
namespace {

constexpr const char* kStyles[] = {"unknown", "off", "on", "slow", "fast", "alternate"};

test::FakeDevice& device() {
  return test::FakeDevice::instance();
}

void record(const std::string& call) {
  device().calls.push_back(call);
  if (device().onCall) {
    device().onCall(call);
  }
}

}  // namespace

LedControl& LedControl::instance() {
  static LedControl control;
  return control;
}

void LedControl::initialize(const SlaveProxy* proxy) {
  record("initialize");
  if (proxy != nullptr) {
    withdraw(proxy);
    proxies_.push_back(proxy);
    device().ledProxies = proxies_;
  }
}

void LedControl::withdraw(const SlaveProxy* proxy) {
  proxies_.erase(std::remove(proxies_.begin(), proxies_.end(), proxy), proxies_.end());
  device().ledProxies = proxies_;
}

bool LedControl::blinkLeds(LedStyle::Type style) {
  record(std::string("blinkLeds ") + kStyles[style]);
  const int error = ProgramRunner::errorOf("blinkLeds", style == LedStyle::unknown ? EINVAL : 0);
  if (error == 0) {
    style_ = style;
    device().blinking = style;
  }
  for (const SlaveProxy* proxy : proxies_) {
    (void)proxy->finish(error);
  }
  return error == 0;
}

void LedControl::poll() {
  ++device().polls;
  if (device().onCall) {
    device().onCall("poll");
  }
}

LedStyle::Type LedStyle::toEnum(const std::string& word) {
  const auto* const found = std::find(std::begin(kStyles), std::end(kStyles), word);
  return found == std::end(kStyles) ? unknown : static_cast<Type>(found - std::begin(kStyles));
}

const std::string& DeviceType::toString(DeviceType_t type) {
  static const std::string names[] = {"unknown", "controller", "server"};
  return names[static_cast<int>(type)];
}

void FileTreeWalker::print(std::ostream& out) const {
  out << lines_;
}

}  // namespace zell
