// SPDX-License-Identifier: Apache-2.0
// Tasks that are about the device itself.
#include <sstream>

#include <zell/device_type.h>
#include <zell/led_control.h>
#include <zell/led_style.h>

#include "connections/byte_count_slave.h"

namespace zell {
namespace {

// How a master says "on"; everything else is off.
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

// The acknowledgement leaves before the device goes down, and once. The daemon stops also when the
// reboot fails: the master has been told that it will.
SlaveTask* ByteCountSlave::runReboot(const SlaveTask& /*task*/) {
  const std::unique_ptr<SlaveTask> reply(makeReply(true));
  send(*reply);
  (void)proxy_->reboot();
  stopRequested_ = true;
  return nullptr;
}

// Without an answer: whoever supervises the daemon starts it again.
SlaveTask* ByteCountSlave::runRestart(const SlaveTask& /*task*/) {
  stopRequested_ = true;
  return nullptr;
}

SlaveTask* ByteCountSlave::runUpdateUmState(const SlaveTask& task) {
  // Not by <<, which keeps it to itself when there is no memory for all.
  const std::ostringstream state(task.args()[2], std::ios_base::ate);
  return makeReply(proxy_->updateUmState(task.args()[1], state));
}

}  // namespace zell
