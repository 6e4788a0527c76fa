// SPDX-License-Identifier: Apache-2.0
// A connection that is only held open.
#ifndef RUNEL_MASTER_SILENT_SOCKET_H_
#define RUNEL_MASTER_SILENT_SOCKET_H_

#include <functional>
#include <string>

#include <runel/loop.h>

#include "base/unique_fd.h"

namespace runel {

/// Writes nothing and finds the end of the connection. What the peer sends stays in the kernel, or
/// is read and dropped.
class SilentSocket {
 public:
  /// @p ended is called once, with the reason; the object may then be destroyed. @p drains: the
  /// answers to earlier requests may still come, and the peer waits until they are taken.
  SilentSocket(Loop& loop, zell::UniqueFd socket, bool drains,
               std::function<void(const std::string& why)> ended);
  ~SilentSocket();
  SilentSocket(const SilentSocket&) = delete;
  SilentSocket& operator=(const SilentSocket&) = delete;

  /// Gives the socket away; nothing is called any more.
  [[nodiscard]] zell::UniqueFd take();
  /// Whether something was read and dropped.
  [[nodiscard]] bool hasDropped() const { return dropped_; }

 private:
  void ready();
  void end(const std::string& why);

  Loop& loop_;
  zell::UniqueFd socket_;
  std::function<void(const std::string& why)> ended_;
  Timer failed_;
  bool dropped_ = false;
};

}  // namespace runel

#endif  // RUNEL_MASTER_SILENT_SOCKET_H_
