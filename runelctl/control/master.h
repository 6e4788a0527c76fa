// SPDX-License-Identifier: Apache-2.0
// The master that devices connect to and that other runelctl processes use.
#ifndef RUNELCTL_CONTROL_MASTER_H_
#define RUNELCTL_CONTROL_MASTER_H_

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <runel/address.h>
#include <runel/loop.h>

#include "client/master/access_list.h"
#include "client/master/connection_roles.h"
#include "client/master/device_history.h"
#include "client/master/listener.h"
#include "control/control_socket.h"
#include "control/journal.h"
#include "control/station.h"
#include "protocol/protocol.h"

namespace runelctl {

struct MasterOptions {
  std::string host = "127.0.0.1";
  std::uint16_t port = zell::kMasterPort;
  std::string socket;
  runel::AccessList access;
  std::optional<runel::Milliseconds> shared;
  runel::Milliseconds timeout{30000};
};

class Master {
 public:
  Master(runel::Loop& loop, const MasterOptions& options, Journal& journal);
  ~Master();
  Master(const Master&) = delete;
  Master& operator=(const Master&) = delete;

  /// Opens the port and the control socket. Returns the error, empty for success.
  [[nodiscard]] std::string open();

 private:
  using Id = runel::ConnectionRoles::Id;
  /// A refused connection: a socket, or a station that must not be used.
  struct Held {
    zell::UniqueFd socket;
    Id id = 0;
    std::string address;
    runel::Timer end;
  };

  void accepted(zell::UniqueFd socket, const sockaddr_in& from);
  [[nodiscard]] std::string refusal(const sockaddr_in& from, const std::string& address) const;
  void turnAway(zell::UniqueFd socket, const Label& who, const std::string& why);
  void hold(Held held);
  void letGo();
  void admit(zell::UniqueFd socket, const Label& who);
  [[nodiscard]] std::string hostidAt(const std::string& address) const;
  void checkSlaves(const std::string& address);
  void identified(Id id);
  void spoke(Id id);
  void lost(Id id, const std::string& why);
  void arm();
  void promote();
  void asked(const std::string& line, zell::UniqueFd socket);
  void attach(const std::string& name, zell::UniqueFd socket);
  [[nodiscard]] std::vector<Station*> named(const std::string& name) const;
  [[nodiscard]] std::string list() const;

  runel::Loop& loop_;
  const MasterOptions& options_;
  Journal& journal_;
  runel::ConnectionRoles roles_;
  Id last_ = 0;
  std::map<Id, std::unique_ptr<Station>> stations_;
  runel::DeviceHistory history_;
  std::deque<Held> held_;              // oldest first
  std::set<std::string> toldRefused_;  // reported addresses of held connections
  runel::Timer due_;
  runel::Listener listener_;
  ControlSocket control_;
};

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_MASTER_H_
