// SPDX-License-Identifier: Apache-2.0
// The daemon's own policy: what it listens to, whom it connects to, and who serves which socket.
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
/// sends tasks) and, while an update manager agent is connected, a second one (the agent bridge, to
/// which the agent's clauses are relayed). It owns one handler for each socket that it serves.
class Runel : public ServerBase {
 public:
  /// A server for the master at @p address, a host name or dotted address. @p daemon has `run` go
  /// into the background; each step of @p verbose shows more.
  Runel(const std::string& address, bool daemon, int verbose);
  ~Runel() override;

  /// Runs the server to its end. Always 0, which is the program's exit status.
  int run();

  int drop_socket(int socket) override;
  int drop_host_connection(int socket) override;
  void handle_startup() override;
  /// Waits longer each time, then says true; after 35 failures reboots the device.
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

  /// Makes the master's alias name @p address (a dotted quad) in the hosts file @p path: drops
  /// every line in which a blank stands before the alias, keeps all others, adds one line. A
  /// missing file is made. The new content is written to @p path + ".new", synced and renamed, so
  /// that the file is always the old or the new one. Only root can read the new file until it is
  /// complete; then it gets the mode and the owner of the old one (0644 for a missing one). Every
  /// failure is logged and leaves the file as it was.
  void setEtcHosts(const std::string& path, const std::string& address);
  /// Logs @p a and @p b, without a blank between them, with a comma and the text of errno.
  void logError(const std::string& a, const std::string& b);
  /// Logs @p a and @p b as a warning, without a blank between them.
  void logWarning(const std::string& a, const std::string& b);

  // A test holds the order of these members.
  std::string address_;
  int spare_ = -1;  // reserved: read nowhere, it keeps the members behind it in their places
  int verbose_;
  int daemon_;
  // A replaced agent's entry stays, with null for its handler. Only forgetHandler() erases one.
  std::map<int, std::unique_ptr<RunelConnection>> handlers_;
  // The roles; each is also in handlers_, which owns it.
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

  // Handlers that were dropped while one of them was at work: it may be the one that is being
  // called. They are deleted when the call is over.
  std::vector<std::unique_ptr<RunelConnection>> retired_;
  int busy_ = 0;         // handler calls that are under way
  unsigned erased_ = 0;  // entries erased from handlers_ so far
};

}  // namespace zell

#endif  // ZELL_AGENT_RUNEL_H_
