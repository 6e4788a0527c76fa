// SPDX-License-Identifier: Apache-2.0
// The daemon's policy: the port it listens on, the host it connects to, the handler for each
// socket.
#ifndef ZELL_AGENT_RUNEL_H_
#define ZELL_AGENT_RUNEL_H_

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "server/server_base.h"

namespace zell {

class ByteCountSlave;
class RunelConnection;
class XmlSlave;

/// The agent server. It keeps a connection to the master (the slave connection, on which the master
/// sends tasks). While an update manager agent is connected, it keeps a second one (the agent
/// bridge, to which the agent's clauses are relayed). It owns one handler for each socket that it
/// serves.
class Runel : public ServerBase {
 public:
  /// A server for the master at @p address, a host name or dotted address. With @p daemon, `run`
  /// forks into the background. A higher @p verbose logs more.
  Runel(const std::string& address, bool daemon, int verbose);
  ~Runel() override;

  /// Runs the server until it ends. Always returns 0, the program's exit status.
  int run();

  int drop_socket(int socket) override;
  int drop_host_connection(int socket) override;
  void handle_startup() override;
  /// Waits, each time longer, then returns true. After 35 failures reboots the device.
  bool handle_listen_failure(int port) override;
  using ServerBase::handle_data_read;
  void handle_data_read(int socket, char* buf, size_t len, int port) override;
  void handle_timeout() override;
  void handle_incoming_connection(int socket) override;
  void handle_outgoing_connection(int socket) override;
  void handle_loop() override;

 protected:
  /// The address of the inbound connection on @p socket. Valid until the connection is dropped.
  const std::string& getConnectionAddress(int socket);

  /// Makes the master's alias name @p address (a dotted quad) in the hosts file @p path. Drops
  /// every line that contains the alias after a space, keeps all others and adds one line. Creates
  /// a missing file. Writes the new content to @p path + ".new", syncs and renames it, so that the
  /// file always has either the old or the new content. Only root can read the new file until it is
  /// complete; then it gets the mode and the owner of the old one (0644 for a missing one). Logs
  /// every failure and leaves the file unchanged then.
  void setEtcHosts(const std::string& path, const std::string& address);
  /// Logs @p a and @p b without a separator, then a comma and the text of errno.
  void logError(const std::string& a, const std::string& b);
  /// Logs @p a and @p b as a warning, without a separator.
  void logWarning(const std::string& a, const std::string& b);

  // Tests cover the order of these members.
  std::string address_;
  int spare_ = -1;  // reserved and never read; keeps the following members at their offsets
  int verbose_;
  int daemon_;
  // The entry of a replaced agent stays with a null handler. Only forgetHandler() erases entries.
  std::map<int, std::unique_ptr<RunelConnection>> handlers_;
  // The roles. Each handler is also in handlers_, which owns it.
  ByteCountSlave* slave_ = nullptr;
  XmlSlave* bridge_ = nullptr;
  XmlSlave* agent_ = nullptr;
  int retries_ = 0;  // listen failures so far

 private:
  class Busy;

  // runel.cc
  void logProcessList();
  void endTftpServer();
  void rebootDevice();

  // routing.cc
  bool classify(int socket, const char* buf, std::size_t len);
  void makeAgent(int socket);
  void logPacket(int socket, const std::string& data);
  void serve(int socket, std::string& data);
  void dropStale(int socket);
  [[nodiscard]] bool isServing(const RunelConnection& handler) const;
  void workOnPending(RunelConnection& handler, bool trace);

  // pairing.cc
  int eraseHandler(int socket);
  void forgetHandler(int socket);
  void retire(std::unique_ptr<RunelConnection> handler);
  void orphanAgent();
  void linkRelays();
  void unlinkRelays();

  // Handlers that were dropped during a handler call: one of them may be the caller. They are
  // deleted when the call returns.
  std::vector<std::unique_ptr<RunelConnection>> retired_;
  int busy_ = 0;         // handler calls in progress
  unsigned erased_ = 0;  // entries erased from handlers_ so far
};

}  // namespace zell

#endif  // ZELL_AGENT_RUNEL_H_
