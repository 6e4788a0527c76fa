// SPDX-License-Identifier: Apache-2.0
// An interactive command prompt on a socket.
#ifndef ZELL_CONNECTIONS_PLAIN_SLAVE_H_
#define ZELL_CONNECTIONS_PLAIN_SLAVE_H_

#include <string>

#include "connections/runel_connection.h"

namespace zell {

/// Runs each packet as one command line and sends the output and a prompt. Keeps nothing between
/// packets: a line in two packets is two lines. A running command blocks the whole daemon.
///
/// The server does not route any connection here yet; the handler is complete.
class PlainSlave : public RunelConnection {
 public:
  explicit PlainSlave(int socket);

  /// Always false, because nothing is ever buffered.
  bool inputPending() override;
  /// Runs the command line @p packet, which is cleaned and truncated in place.
  void handleMessage(std::string& packet) override;

  /// Sends the host name and "$ ".
  void prompt();
  /// Sends @p text unchanged with one system call and returns the result of write(2); -1 for a
  /// negative socket.
  int write(const std::string& text);
  /// Cleans @p line and leaves the command's arguments in it. If the first word is not a command,
  /// the whole line stays, as a command line for the shell. False for an empty line.
  bool parseCommand(int& code, std::string& line);
  /// The code of the command @p word; 0 if it is not a command.
  int commandCode(const std::string& word);
  /// Runs the command @p code. Sends errors to the client before the output.
  void execute(int code, const std::string& args);

 private:
  void writeOutput();
  void reportError(int code, const std::string& message);
  void runProgram(const std::string& args);
  void runShell(const std::string& args);
  void setLeds(const std::string& args);
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_PLAIN_SLAVE_H_
