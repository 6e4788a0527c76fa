// SPDX-License-Identifier: Apache-2.0
// A command prompt for people, on a socket.
#ifndef ZELL_CONNECTIONS_PLAIN_SLAVE_H_
#define ZELL_CONNECTIONS_PLAIN_SLAVE_H_

#include <string>

#include "connections/runel_connection.h"

namespace zell {

/// Takes each packet as one command line, runs it, and answers with the output and a prompt. It
/// keeps nothing between packets: a line that comes in two packets is two lines. A running command
/// stops the whole daemon.
///
/// No route of the server leads here; the handler is complete for one that will.
class PlainSlave : public RunelConnection {
 public:
  explicit PlainSlave(int socket);

  /// Always false: nothing is ever buffered.
  bool inputPending() override;
  /// Runs the command line @p packet, which is cleaned and shortened in place.
  void handleMessage(std::string& packet) override;

  /// Sends the host name and "$ ".
  void prompt();
  /// Sends @p text as it is with one system call and returns what write(2) returned; -1 for a
  /// negative socket.
  int write(const std::string& text);
  /// Cleans @p line and leaves the command's arguments in it: the whole line where its first word
  /// is no command, which is a command line for the shell then. False for an empty line.
  bool parseCommand(int& code, std::string& line);
  /// The code of the command @p word, 0 when it is none.
  int commandCode(const std::string& word);
  /// Runs the command @p code. Errors go to the client, ahead of the output.
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
