// SPDX-License-Identifier: Apache-2.0
// The connection to the system log, for C libraries whose syslog(3) truncates lines.
#ifndef ZELL_BASE_SYSTEM_LOG_H_
#define ZELL_BASE_SYSTEM_LOG_H_

#include <string_view>

#include <sys/socket.h>
#include <syslog.h>

#include "base/unique_fd.h"

namespace zell {

/// Sends each line to /dev/log as one datagram, "<PRIORITY>Mon DD HH:MM:SS IDENT: TEXT": the same
/// bytes that syslog(3) of glibc sends, for any length. Not for several threads. Allocates nothing.
class SystemLog {
 public:
  /// The same as openlog(3): LOG_PID, LOG_PERROR, LOG_CONS and LOG_NDELAY have an effect. Keeps the
  /// pointer @p ident. A null @p ident leaves the one before.
  void open(const char* ident, int options, int facility);
  /// The same as closelog(3). The next line opens the connection again, with the program's name as
  /// its ident.
  void close();
  /// Sends one line. Connects again when the log's reader was restarted. Without a reader the line
  /// is lost, as with glibc; LOG_CONS writes it to /dev/console. Changes errno.
  void write(int priority, std::string_view text);

 private:
  struct Line;

  void connect();
  void disconnect();
  [[nodiscard]] bool send(const Line& line) const;

  const char* ident_ = nullptr;
  int options_ = 0;
  int facility_ = LOG_USER;
  int type_ = SOCK_DGRAM;  // SOCK_STREAM for a reader that has such a socket
  UniqueFd socket_;
};

}  // namespace zell

#endif  // ZELL_BASE_SYSTEM_LOG_H_
