// SPDX-License-Identifier: Apache-2.0
// Tasks about the device itself.
#include <sstream>

#include <zell/device_type.h>
#include <zell/led_control.h>
#include <zell/led_style.h>

#include "connections/byte_count_slave.h"

namespace zell {
namespace {

// The argument for "on". Every other value means off.
constexpr char kOn[] = "1";

}  // namespace

SlaveTask* ByteCountSlave::runBlinkLeds(const SlaveTask& task) {
  return makeReply(LedControl::instance().blinkLeds(LedStyle::toEnum(task.args()[1])));
}

SlaveTask* ByteCountSlave::runChangeLeds(const SlaveTask& task) {
  return makeReply(proxy_->changeLeds(task.args()[1] == kOn, task.args()[2] == kOn));
}

SlaveTask* ByteCountSlave::runDeviceType(const SlaveTask& /*task*/) {
  return makeReply(DeviceType::toString(proxy_->deviceType()));
}

SlaveTask* ByteCountSlave::runHostId(const SlaveTask& /*task*/) {
  return makeReply(proxy_->hostId());
}

// Sends the acknowledgement once, before the device goes down. The daemon stops even if the reboot
// fails, because the master has been told that the device reboots.
SlaveTask* ByteCountSlave::runReboot(const SlaveTask& /*task*/) {
  const std::unique_ptr<SlaveTask> reply(makeReply(true));
  send(*reply);
  (void)proxy_->reboot();
  stopRequested_ = true;
  return nullptr;
}

// Sends no reply. The service supervisor starts the daemon again.
SlaveTask* ByteCountSlave::runRestart(const SlaveTask& /*task*/) {
  stopRequested_ = true;
  return nullptr;
}

SlaveTask* ByteCountSlave::runUpdateUmState(const SlaveTask& task) {
  // operator<< swallows bad_alloc and truncates; construct the stream from the string.
  const std::ostringstream state(task.args()[2], std::ios_base::ate);
  return makeReply(proxy_->updateUmState(task.args()[1], state));
}

}  // namespace zell
