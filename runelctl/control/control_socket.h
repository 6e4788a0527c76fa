// SPDX-License-Identifier: Apache-2.0
// The socket in the user's runtime directory that other runelctl processes use to reach the master.
#ifndef RUNELCTL_CONTROL_CONTROL_SOCKET_H_
#define RUNELCTL_CONTROL_CONTROL_SOCKET_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include <runel/loop.h>

#include "base/unique_fd.h"

namespace runelctl {

/// Accepts processes of this user and of root, and reads the request line of each.
class ControlSocket {
 public:
  /// Called with the request line and the socket of a process. The data after the line is not read
  /// yet.
  using Asked = std::function<void(const std::string& line, zell::UniqueFd socket)>;

  ControlSocket(runel::Loop& loop, Asked asked) : loop_(loop), asked_(std::move(asked)) {}
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  /// Listens at @p path and replaces a stale socket. Returns the error, empty for success.
  [[nodiscard]] std::string open(const std::string& path);

  /// Sends @p text without blocking and closes the socket.
  void sendAndClose(zell::UniqueFd socket, std::string text);

 private:
  /// A process that sends its request line or receives its last answer.
  struct Caller {
    zell::UniqueFd socket;
    std::string text;
    runel::Timer limit;
  };

  void accept();
  void keep(zell::UniqueFd socket, std::uint32_t events, runel::Milliseconds limit,
            std::string text);
  void readLine(int fd);
  void sendRest(int fd);
  void drop(int fd);

  runel::Loop& loop_;
  const Asked asked_;
  zell::UniqueFd listener_;
  zell::UniqueFd directory_;  // of the socket
  std::string path_;
  std::map<int, Caller> callers_;
};

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_CONTROL_SOCKET_H_
