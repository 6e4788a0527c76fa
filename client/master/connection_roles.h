// SPDX-License-Identifier: Apache-2.0
// Decides which connection from an address carries tasks. Does not use the sockets.
#ifndef RUNEL_MASTER_CONNECTION_ROLES_H_
#define RUNEL_MASTER_CONNECTION_ROLES_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <runel/loop.h>

namespace runel {

/// A device does not identify the kind of its connections, and a frame on its agent bridge stops
/// its daemon. So a connection is used as the slave connection, which carries tasks, only if it
/// cannot be a bridge: a device has no bridge without a slave connection.
///
/// An address here is the text that tells devices apart: the source address of a connection, or the
/// name in its certificate.
///
/// The cost of each call is independent of the number of addresses, and logarithmic in the number
/// of connections from one address.
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

  /// Adds the new connection @p id from @p address. @p shared: there may be several devices at this
  /// address, if the rules say so.
  Role opened(Id id, const std::string& address, Time now, bool shared = true);
  /// The new slave connection @p id may still be a bridge, of a slave connection that only the
  /// device knows, until @p until. While it waits, no connection from its address becomes one.
  void wait(Id id, Time until);
  /// The connection sent data unasked: it is not a slave connection and never becomes one. If it
  /// was to become one, no other connection from its address does before it has ended.
  void spoke(Id id);
  void closed(Id id, Time now);

  /// The connections that have become slave connections by @p now. Each is returned once.
  [[nodiscard]] std::vector<Id> due(Time now);
  /// A connection whose time of waiting is over, and its role from now on.
  struct Waited {
    Id id;
    Role role;
  };
  /// Those that were silent until the end of their time. Each is returned once.
  [[nodiscard]] std::vector<Waited> waited(Time now);
  /// When to call `due` and `waited` next.
  [[nodiscard]] std::optional<Time> nextDue() const;

  /// In the order of their arrival.
  [[nodiscard]] std::vector<Id> slavesAt(const std::string& address) const;
  /// Without a value when there is not exactly one.
  [[nodiscard]] std::optional<Id> onlySlaveAt(const std::string& address) const;
  [[nodiscard]] std::size_t countAt(const std::string& address) const;

 private:
  /// All connections from one address.
  struct Place {
    std::set<Id> slaves;
    std::set<Id> silent;  // the further connections that have sent nothing
    std::size_t count = 0;
    std::size_t waiting = 0;
    std::size_t orphans = 0;  // bridges of a slave connection that only the device knows
    Time slaveLost;
  };
  using Places = std::unordered_map<std::string, Place>;
  struct Member {
    Places::value_type* place = nullptr;
    Role role = Role::further;
    bool shared = true;
    bool waits = false;
    bool orphan = false;
    Time time;  // when it was opened, or until when it waits
  };

  void changeSilent(Id id, const Member& member, bool silent);
  void endWait(Id id, Member& member);
  /// Whether the slave connection is lost for sure.
  [[nodiscard]] static bool isFree(const Place& place) {
    return place.slaves.empty() && place.waiting == 0 && place.orphans == 0;
  }
  void watchPlace(const Places::value_type& place);
  void useAsSlave(Id id);

  const Rules rules_;
  Places places_;
  std::unordered_map<Id, Member> members_;
  std::set<std::pair<Time, Id>> dueSilent_;           // by the end of their time of silence
  std::set<std::pair<Time, Id>> dueWaiting_;          // by the end of their time of waiting
  std::set<std::pair<Time, std::string>> dueOrphan_;  // addresses without a slave connection
};

}  // namespace runel

#endif  // RUNEL_MASTER_CONNECTION_ROLES_H_
