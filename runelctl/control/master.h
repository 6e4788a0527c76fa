// SPDX-License-Identifier: Apache-2.0
// The master that devices connect to and that other runelctl processes use.
#ifndef ZELL_RUNELCTL_CONTROL_MASTER_H_
#define ZELL_RUNELCTL_CONTROL_MASTER_H_

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/core/address.h"
#include "client/core/loop.h"
#include "client/master/access_list.h"
#include "client/master/lineup.h"
#include "client/master/listener.h"
#include "client/master/roll.h"
#include "control/control_socket.h"
#include "control/journal.h"
#include "control/station.h"
#include "protocol/protocol.h"

namespace zell::ctl {

struct MasterOptions {
  std::string host = "127.0.0.1";
  std::uint16_t port = kMasterPort;
  std::string socket;
  AccessList access;
  std::optional<Milliseconds> shared;
  Milliseconds timeout{30000};
};

class Master {
 public:
  Master(Loop& loop, const MasterOptions& options, Journal& journal);
  ~Master();
  Master(const Master&) = delete;
  Master& operator=(const Master&) = delete;

  /// Opens the port and the control socket. Returns the error, empty for success.
  [[nodiscard]] std::string open();

 private:
  using Id = Lineup::Id;
  /// A refused connection: a socket, or a station that must not be used.
  struct Held {
    UniqueFd socket;
    Id id = 0;
    std::string address;
    Loop::Timer end;
  };

  void accepted(UniqueFd socket, const sockaddr_in& from);
  [[nodiscard]] std::string refusal(const sockaddr_in& from, const std::string& address) const;
  void turnAway(UniqueFd socket, const Label& who, const std::string& why);
  void hold(Held held);
  void letGo();
  void admit(UniqueFd socket, const Label& who);
  [[nodiscard]] std::string hostidAt(const std::string& address) const;
  void checkSlaves(const std::string& address);
  void identified(Id id);
  void spoke(Id id);
  void lost(Id id, const std::string& why);
  void arm();
  void promote();
  void asked(const std::string& line, UniqueFd socket);
  void attach(const std::string& name, UniqueFd socket);
  [[nodiscard]] std::vector<Station*> named(const std::string& name) const;
  [[nodiscard]] std::string list() const;

  Loop& loop_;
  const MasterOptions& options_;
  Journal& journal_;
  Lineup lineup_;
  Id last_ = 0;
  std::map<Id, std::unique_ptr<Station>> stations_;
  Roll roll_;
  std::deque<Held> held_;              // oldest first
  std::set<std::string> toldRefused_;  // reported addresses of held connections
  Loop::Timer due_;
  Listener listener_;
  ControlSocket control_;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CONTROL_MASTER_H_
