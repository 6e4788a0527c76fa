// SPDX-License-Identifier: Apache-2.0
// A sequence of events on an agent server. After each event, compares the server with the model of
// its tables: handlers by socket, roles, hosts, sent bytes, closed sockets and log lines.
#ifndef TESTS_UNIT_AGENT_WALK_H_
#define TESTS_UNIT_AGENT_WALK_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "unit/agent/agent_case.h"
#include "unit/agent/walk_model.h"

namespace zell::test {

/// Chooses the next event.
class Choices {
 public:
  Choices() = default;
  virtual ~Choices() = default;
  Choices(const Choices&) = delete;
  Choices& operator=(const Choices&) = delete;

  /// A number below @p limit.
  virtual std::size_t below(std::size_t limit) = 0;
  /// The bytes of a packet; empty to choose one of the usual packets.
  virtual std::string text() { return ""; }
  /// Whether another event follows.
  virtual bool more() { return true; }
};

/// The number of events in each rare state: walks that never reach these states test too little.
using Visits = std::map<std::string, long>;

class Walk {
 public:
  /// @p verbosity: that of the server. Resets the device.
  Walk(Choices& choices, int verbosity, LogCapture& log);
  ~Walk();
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  /// Runs to the end or to the first difference, which fails the test, prints the events and
  /// returns false.
  bool run(Visits& visits);

 private:
  std::size_t below(std::size_t limit) { return choices_.below(limit); }
  void tell(const std::string& event) { events_ += event + "\n"; }
  int anySocket();
  std::vector<int> someSockets();
  void step();
  void accept();
  void connect();
  void read();
  [[nodiscard]] bool isInFrame(int socket) const;
  std::string packetFor(int socket);
  void end();
  void loop();
  void script();
  void armTask();
  void duringTask(const std::string& call);
  void compare();
  void note(Visits& visits) const;
  void compareRoles();
  static HandlerModel::Kind kindOf(const RunelConnection* handler);
  void compareHandlers();
  void comparePeers();

  Choices& choices_;
  LogCapture& log_;
  TestRunel server_;
  WalkModel model_;
  std::map<int, Peer> peers_;        // by server socket
  std::map<int, std::string> rest_;  // rest of a started frame, by socket
  std::vector<int> taskDrops_;
  bool taskThrows_ = false;
  std::string events_;
};

}  // namespace zell::test

#endif  // TESTS_UNIT_AGENT_WALK_H_
