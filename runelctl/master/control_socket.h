// SPDX-License-Identifier: Apache-2.0
// The socket in the user's runtime folder through which other runs of runelctl reach the master.
#ifndef ZELL_RUNELCTL_MASTER_CONTROL_SOCKET_H_
#define ZELL_RUNELCTL_MASTER_CONTROL_SOCKET_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "base/unique_fd.h"
#include "client/loop.h"

namespace zell::ctl {

/// Lets in this user's programs (and root's), and reads the one line with which each begins.
class ControlSocket {
 public:
  /// A program has said what it wants. Its socket is ready to be used, and what it sent behind the
  /// line is still to be read from it.
  using Asked = std::function<void(const std::string& line, UniqueFd socket)>;

  ControlSocket(Loop& loop, Asked asked) : loop_(loop), asked_(std::move(asked)) {}
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  /// Listens at @p path, in place of a master that is gone. The reason when that cannot be done.
  [[nodiscard]] std::string open(const std::string& path);

  /// Sends @p text to a program, whether it reads it or not, and closes.
  void sendAndClose(UniqueFd socket, std::string text);

 private:
  /// One whose line is to come, or one that is sent its last answer.
  struct Caller {
    UniqueFd socket;
    std::string text;
    Loop::Timer limit;
  };

  void accept();
  void keep(UniqueFd socket, std::uint32_t events, Milliseconds limit, std::string text);
  void readLine(int fd);
  void sendRest(int fd);
  void drop(int fd);

  Loop& loop_;
  const Asked asked_;
  UniqueFd listener_;
  std::string path_;
  std::map<int, Caller> callers_;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_MASTER_CONTROL_SOCKET_H_
