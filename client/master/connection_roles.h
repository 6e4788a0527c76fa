// SPDX-License-Identifier: Apache-2.0
// Decides which connection from an address carries tasks. Does not use the sockets.
#ifndef RUNEL_MASTER_CONNECTION_ROLES_H_
#define RUNEL_MASTER_CONNECTION_ROLES_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <runel/loop.h>

namespace runel {

/// A device does not identify the kind of its connections, and a frame on its agent bridge stops
/// its daemon. So a connection is used as the slave connection, which carries tasks, only if it
/// cannot be a bridge: a device has no bridge without a slave connection.
class ConnectionRoles {
 public:
  using Id = std::uint64_t;
  using Time = Clock::time_point;
  enum class Role {
    slave,    ///< frames may be written to it
    further,  ///< a bridge or a surplus connection: never written to
  };

  struct Rules {
    /// A device closes its bridge together with its slave connection. A connection that is still
    /// open this long after the loss of the slave connection is not a bridge.
    Milliseconds outlive{5000};
    /// For several devices at one address: a connection that is silent for this long is used as the
    /// slave connection of another device. Without a value, each address is one device.
    std::optional<Milliseconds> shared;
  };

  explicit ConnectionRoles(Rules rules) : rules_(rules) {}

  /// Adds the new connection @p id from @p address.
  Role opened(Id id, const std::string& address, Time now);
  /// The connection sent data unasked: it is not a slave connection and never becomes one.
  void spoke(Id id);
  void closed(Id id, Time now);

  /// The connections that have become slave connections by @p now. Each is returned once.
  [[nodiscard]] std::vector<Id> due(Time now);
  /// When to call `due` next.
  [[nodiscard]] std::optional<Time> nextDue() const;

  [[nodiscard]] std::vector<Id> slavesAt(const std::string& address) const;
  [[nodiscard]] std::size_t countAt(const std::string& address) const;

 private:
  struct Member {
    Role role = Role::further;
    bool spoke = false;
    Time opened;
  };
  /// All connections from one address, in the order of their arrival.
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

}  // namespace runel

#endif  // RUNEL_MASTER_CONNECTION_ROLES_H_
