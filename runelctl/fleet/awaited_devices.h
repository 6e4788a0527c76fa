// SPDX-License-Identifier: Apache-2.0
// The devices that a run still waits for.
#ifndef RUNELCTL_FLEET_AWAITED_DEVICES_H_
#define RUNELCTL_FLEET_AWAITED_DEVICES_H_

#include <cstddef>
#include <map>
#include <string>

#include <runel/async_device.h>
#include <runel/loop.h>

namespace runelctl {

/// The state of a device that owes an answer: "busy for 40 s", or "no acknowledgement for 40 s".
/// Empty if it is not silent for long.
[[nodiscard]] std::string silenceText(runel::Milliseconds silence, bool acknowledges);

class AwaitedDevices {
 public:
  using Time = runel::Clock::time_point;

  /// An attempt on the device number @p index begins. @p device lives until `leave`.
  void enter(std::size_t index, const std::string& name, const runel::AsyncDevice& device,
             Time now);
  /// The attempt has ended. A further one may follow.
  void leave(std::size_t index);
  /// The device number @p index has ended.
  void end(std::size_t index, Time now);

  /// For the status line: the names of the devices that take long, with their states. Empty for
  /// none.
  [[nodiscard]] std::string text(Time now) const;
  /// The state of the only device.
  [[nodiscard]] std::string stateOfOne() const;
  /// Whether each of the devices takes much longer than those that have ended, so that their output
  /// must not wait for it.
  [[nodiscard]] bool allLate(Time now) const;

 private:
  struct Device {
    std::string name;
    Time begin;
    const runel::AsyncDevice* connection;  ///< nullptr between two attempts
  };

  [[nodiscard]] static std::string stateOf(const Device& device);

  std::map<std::size_t, Device> devices_;
  Time::duration slowest_{0};
};

}  // namespace runelctl

#endif  // RUNELCTL_FLEET_AWAITED_DEVICES_H_
