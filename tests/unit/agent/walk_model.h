// SPDX-License-Identifier: Apache-2.0
// A reference model of the agent server: the expected tables, peers and log after each event, on
// plain values, without sockets and handlers.
#ifndef TESTS_UNIT_AGENT_WALK_MODEL_H_
#define TESTS_UNIT_AGENT_WALK_MODEL_H_

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/slow_relay.h"

namespace zell::test {

/// The master's address.
inline constexpr char kMaster[] = "192.0.2.1";

/// The actions of a scripted handler: it drops sockets.
struct Script {
  std::vector<int> onMessage;
  std::vector<int> onPending;
  bool pending = false;  ///< the result of inputPending
};

/// A reference decoder for the input of a task connection.
struct FrameModel {
  enum class State { marker, count, payload, bad };
  State state = State::marker;
  std::string digits;
  std::string payload;
  std::deque<std::string> messages;
  bool stop = false;

  /// Decodes @p bytes. Returns the error, or an empty string.
  std::string accept(const std::string& bytes);
};

struct HandlerModel {
  enum class Kind { stale, byteCount, xml, scripted };
  Kind kind = Kind::stale;
  FrameModel frames;
  SlowRelay relay;
  Script script;
};

class WalkModel {
 public:
  explicit WalkModel(int verbosity) : verbose(verbosity) {}

  // The events.
  void accepted(int socket, const std::string& ip);
  void connected(int socket);
  void read(int socket, const std::string& packet);
  bool dropSocket(int socket);
  bool dropHost(int socket);
  void loop();
  void serveWith(int socket, const Script& script);

  // The tables.
  int verbose;
  std::map<int, std::shared_ptr<HandlerModel>> handlers;
  int slave = -1;
  int bridge = -1;
  int agent = -1;
  std::vector<int> hosts{-1};  ///< their sockets
  std::map<int, std::string> connections;
  bool run = true;
  std::string alias;  ///< the master's address in the hosts file

  // The results of the event.
  std::vector<LogEntry> log;
  std::map<int, std::string> sent;  ///< by socket
  std::multiset<int> closed;

  /// The actions of the next "hostid" before it answers.
  std::vector<int> taskDrops;
  bool taskThrows = false;

 private:
  struct Thrown {};

  bool classify(int socket, const std::string& packet);
  void makeAgent(int socket);
  void serve(int socket, const std::string& packet);
  void give(int socket, HandlerModel& handler, const std::string& packet);
  void giveTask(int socket, HandlerModel& handler, const std::string& packet);
  void runTask(int socket, HandlerModel& handler, const std::string& message);
  void reply(int socket, const std::string& text);
  void link();
  void unlink(int socket);
  void settle(int socket, HandlerModel& relay);
  void drop(int socket);
  bool baseDropSocket(int socket);
  bool baseDropHost(int socket);
  bool eraseHandler(int socket);
  void workOn(int socket, bool trace);
  SlowRelay& relayOf(int socket) { return handlers.at(socket)->relay; }
  template <typename... Parts>
  void note(int priority, const Parts&... parts);
  template <typename... Parts>
  void noteFrom(int verbosity, const Parts&... parts);
};

}  // namespace zell::test

#endif  // TESTS_UNIT_AGENT_WALK_MODEL_H_
