// SPDX-License-Identifier: Apache-2.0
// Which of the connections from one address carries tasks. Decides only: touches no socket.
#ifndef ZELL_RUNELCTL_MASTER_LINEUP_H_
#define ZELL_RUNELCTL_MASTER_LINEUP_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/loop.h"

namespace zell::ctl {

/// A device sends nothing to tell its connections apart, and a frame on its agent bridge stops it.
/// So a connection is taken for the slave connection, the one that carries tasks, only when it
/// cannot be a bridge: a device has no bridge without a slave connection.
class Lineup {
 public:
  using Id = std::uint64_t;
  using Time = Clock::time_point;
  enum class Role {
    slave,    ///< frames may be written to it
    further,  ///< a bridge or one too many: nothing is ever written to it
  };

  struct Rules {
    /// A device ends its bridge together with its slave connection. What is still there so long
    /// after the slave connection is lost was no bridge.
    Milliseconds outlive{5000};
    /// With several devices behind one address: what has been silent for so long is taken for
    /// another device's slave connection. Without a value every address is one device.
    std::optional<Milliseconds> shared;
  };

  explicit Lineup(Rules rules) : rules_(rules) {}

  /// A new connection @p id from @p address.
  Role opened(Id id, const std::string& address, Time now);
  /// It said something of its own accord: it is no slave connection and never becomes one.
  void spoke(Id id);
  void closed(Id id, Time now);

  /// Those that have become slave connections by @p now, each told once.
  [[nodiscard]] std::vector<Id> due(Time now);
  /// When to ask for them again.
  [[nodiscard]] std::optional<Time> nextDue() const;

  [[nodiscard]] std::vector<Id> slavesAt(const std::string& address) const;
  [[nodiscard]] std::size_t countAt(const std::string& address) const;

 private:
  struct Member {
    Role role = Role::further;
    bool spoke = false;
    Time opened;
  };
  /// All connections from one address, in the order of their coming.
  struct Place {
    std::map<Id, Member> members;
    Time slaveLost;
    [[nodiscard]] bool hasSlave() const;
  };

  [[nodiscard]] std::optional<Time> dueTime(const Place& place, const Member& member) const;

  const Rules rules_;
  std::map<std::string, Place> places_;
  std::map<Id, std::string> addresses_;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_LINEUP_H_
