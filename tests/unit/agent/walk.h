// SPDX-License-Identifier: Apache-2.0
// A sequence of events on an agent server. After each event the server is compared with the model
// of its tables: which handlers serve which sockets, the roles, the hosts, who was sent what, who
// was closed, what was logged.
#ifndef TESTS_UNIT_AGENT_WALK_H_
#define TESTS_UNIT_AGENT_WALK_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "unit/agent/agent_case.h"
#include "unit/agent/walk_model.h"

namespace zell::test {

/// Decides what happens next.
class Choices {
 public:
  Choices() = default;
  virtual ~Choices() = default;
  Choices(const Choices&) = delete;
  Choices& operator=(const Choices&) = delete;

  /// A number below @p limit.
  virtual std::size_t below(std::size_t limit) = 0;
  /// What somebody says, at least one byte; nothing for one of the usual packets.
  virtual std::string text() { return ""; }
  /// Whether there is to be another event.
  virtual bool more() { return true; }
};

/// How many events each of the rarer constellations was there for: walks that never get into them
/// would hold nothing.
using Visits = std::map<std::string, long>;

class Walk {
 public:
  /// @p verbosity is the server's. The device is put into its initial state.
  Walk(Choices& choices, int verbosity, LogCapture& log);
  ~Walk();
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  /// Goes on to the end, or to the first difference; then the test has failed, the events are
  /// printed, and the answer is false.
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
  std::map<int, Peer> peers_;        // by the server's socket
  std::map<int, std::string> rest_;  // of a frame that has begun, by socket
  std::vector<int> taskDrops_;
  bool taskThrows_ = false;
  std::string events_;
};

}  // namespace zell::test

#endif  // TESTS_UNIT_AGENT_WALK_H_
