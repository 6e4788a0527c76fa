// SPDX-License-Identifier: Apache-2.0
// One connection of a device at the master, in whichever role it is, with those who work through
// it.
#ifndef ZELL_RUNELCTL_MASTER_STATION_H_
#define ZELL_RUNELCTL_MASTER_STATION_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "client/loop.h"
#include "master/attachment.h"
#include "master/further_link.h"
#include "master/journal.h"
#include "master/roll.h"
#include "master/slave_link.h"

namespace zell::ctl {

class Station {
 public:
  /// What the master wants to know. After `lost` nothing else is told, and the station may be
  /// destroyed from the loop's next turn on.
  struct Events {
    std::function<void()> identified;
    std::function<void()> spoke;
    std::function<void(const std::string& clause)> clause;
    std::function<void(const std::string& why)> lost;
  };

  Station(Loop& loop, Label label, Milliseconds patience, Events events);
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

  /// Takes @p socket for the connection that carries tasks, and asks who is there.
  void beSlave(UniqueFd socket);
  /// Listens to @p socket and writes nothing to it. @p hostid: whose it is, where that is known.
  void beFurther(UniqueFd socket, const std::string& hostid);
  /// Makes a further connection that is silent a slave connection.
  void promote();

  /// Lets the program on @p socket work on the device.
  void attach(UniqueFd socket);
  /// Finds out whether anybody is still there.
  void check();
  /// Nobody may work on it any more.
  void refuse();

  /// True when the device has said who it is and may be worked on.
  [[nodiscard]] bool ready() const { return identified_ && !refused_; }
  [[nodiscard]] bool isSlave() const { return slave_ != nullptr; }
  /// "slave", "agent" or "further".
  [[nodiscard]] std::string role() const;
  [[nodiscard]] const Label& label() const { return label_; }
  [[nodiscard]] const std::string& deviceType() const { return deviceType_; }
  /// The name under which a device is counted and shown.
  [[nodiscard]] const std::string& name() const {
    return label_.hostid.empty() ? label_.address : label_.hostid;
  }
  /// When it came, in milliseconds of the wall clock.
  [[nodiscard]] std::int64_t since() const { return since_; }
  /// Of the connection that carries tasks; all 0 for another one.
  [[nodiscard]] SlaveLink::Counters counters() const;
  /// What `runelctl devices` shows of a slave connection, with what @p known says of earlier ones.
  [[nodiscard]] Json describe(const Roll::Entry& known) const;
  [[nodiscard]] const FurtherLink* further() const { return further_.get(); }

 private:
  void identify();
  void identified();
  void adjust();
  void userGone(Attachment* user);

  Loop& loop_;
  Label label_;
  const Milliseconds patience_;
  Events events_;
  const std::int64_t since_ = wallClock();
  const Clock::time_point start_ = Clock::now();
  std::string deviceType_;
  bool identified_ = false;
  bool refused_ = false;
  std::unique_ptr<FurtherLink> further_;
  std::unique_ptr<SlaveLink> slave_;
  std::list<std::unique_ptr<Attachment>> users_;  // they use slave_
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_STATION_H_
