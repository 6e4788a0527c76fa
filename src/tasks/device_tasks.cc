// SPDX-License-Identifier: Apache-2.0
// Tasks about the device itself.
#include <sstream>

#include <zell/device_type.h>
#include <zell/led_control.h>
#include <zell/led_style.h>
#include <zell/slave_proxy.h>

#include "tasks/tasks.h"

namespace zell {
namespace {

// The argument for "on". Every other value means off.
constexpr char kOn[] = "1";

}  // namespace

Tasks::Reply Tasks::runBlinkLeds(const SlaveTask& task) {
  return makeReply(LedControl::instance().blinkLeds(LedStyle::toEnum(task.args()[1])));
}

Tasks::Reply Tasks::runChangeLeds(const SlaveTask& task) {
  return makeReply(proxy_.changeLeds(task.args()[1] == kOn, task.args()[2] == kOn));
}

Tasks::Reply Tasks::runDeviceType(const SlaveTask& /*task*/) {
  return makeReply(DeviceType::toString(proxy_.deviceType()));
}

Tasks::Reply Tasks::runHostId(const SlaveTask& /*task*/) {
  return makeReply(proxy_.hostId());
}

// Sends the acknowledgement once, before the device goes down. The daemon stops even if the reboot
// fails, because the master has been told that the device reboots.
Tasks::Reply Tasks::runReboot(const SlaveTask& /*task*/) {
  send_(*makeReply(true));
  (void)proxy_.reboot();
  stopRequested_ = true;
  return nullptr;
}

// Sends no reply. The service supervisor starts the daemon again.
Tasks::Reply Tasks::runRestart(const SlaveTask& /*task*/) {
  stopRequested_ = true;
  return nullptr;
}

Tasks::Reply Tasks::runUpdateUmState(const SlaveTask& task) {
  // operator<< swallows bad_alloc and truncates; construct the stream from the string.
  const std::ostringstream state(task.args()[2], std::ios_base::ate);
  return makeReply(proxy_.updateUmState(task.args()[1], state));
}

}  // namespace zell
