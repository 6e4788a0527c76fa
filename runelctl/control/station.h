// SPDX-License-Identifier: Apache-2.0
// One connection of a device at the master, in any role, with its users.
#ifndef RUNELCTL_CONTROL_STATION_H_
#define RUNELCTL_CONTROL_STATION_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/master/bridge_reader.h"
#include "client/master/device_history.h"
#include "client/master/slave_link.h"
#include "control/attachment.h"
#include "control/journal.h"

namespace runelctl {

class Station {
 public:
  /// Events for the master. `lost` is the last one. The station may be destroyed from the next turn
  /// of the loop.
  struct Events {
    std::function<void()> identified;
    std::function<void()> spoke;
    std::function<void(const std::string& clause)> clause;
    std::function<void(const std::string& why)> lost;
  };

  Station(runel::Loop& loop, Label label, runel::Milliseconds timeout, Events events);
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

  /// Uses @p socket as the slave connection and requests the identity of the device.
  void useAsSlave(zell::UniqueFd socket);
  /// Only reads from @p socket. @p hostid is the identity of its device, if known.
  void useAsBridge(zell::UniqueFd socket, const std::string& hostid);
  /// Makes a silent additional connection the slave connection.
  void promote();

  /// Connects the process on @p socket to the device.
  void attach(zell::UniqueFd socket);
  /// Checks whether the device is alive.
  void check();
  /// Disconnects all users and accepts no new ones.
  void refuse();

  /// True when the device is identified and not refused.
  [[nodiscard]] bool ready() const { return identified_ && !refused_; }
  [[nodiscard]] bool isSlave() const { return slave_ != nullptr; }
  /// "slave", "agent" or "further".
  [[nodiscard]] std::string role() const;
  [[nodiscard]] const Label& label() const { return label_; }
  [[nodiscard]] const std::string& deviceType() const { return deviceType_; }
  /// The name of the device in statistics and output.
  [[nodiscard]] const std::string& name() const {
    return label_.hostid.empty() ? label_.address : label_.hostid;
  }
  /// The wall clock time of the connect, in milliseconds.
  [[nodiscard]] std::int64_t since() const { return since_; }
  /// The counters of a slave connection; all 0 for other roles.
  [[nodiscard]] runel::SlaveLink::Counters counters() const;
  /// The object of `runelctl devices` for a slave connection. @p known has the statistics of
  /// earlier connections.
  [[nodiscard]] Json describe(const runel::DeviceHistory::Entry& known) const;
  [[nodiscard]] const runel::BridgeReader* further() const { return further_.get(); }

 private:
  void identify();
  void identified();
  void adjust();
  void userGone(Attachment* user);

  runel::Loop& loop_;
  Label label_;
  const runel::Milliseconds timeout_;
  Events events_;
  const std::int64_t since_ = wallClock();
  const runel::Clock::time_point start_ = runel::Clock::now();
  std::string deviceType_;
  bool identified_ = false;
  bool refused_ = false;
  std::unique_ptr<runel::BridgeReader> further_;
  std::unique_ptr<runel::SlaveLink> slave_;
  std::list<std::unique_ptr<Attachment>> users_;  // they use slave_
};

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_STATION_H_
