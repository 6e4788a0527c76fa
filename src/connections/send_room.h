// SPDX-License-Identifier: Apache-2.0
// Predicts whether a write to a socket will block.
#ifndef ZELL_CONNECTIONS_SEND_ROOM_H_
#define ZELL_CONNECTIONS_SEND_ROOM_H_

#include <cstddef>

namespace zell {

/// The free space in the send buffer of a TCP socket. The owner reports every write to the socket.
/// On other sockets, and on kernels without SO_MEMINFO, the space is unlimited.
class SendRoom {
 public:
  /// Does not own @p socket.
  explicit SendRoom(int socket) : socket_(socket) {}

  /// Whether a write of @p size bytes will not block. If so, reserves the space for it. Queries the
  /// kernel only when the reserved space reaches the last reported space.
  bool take(std::size_t size);
  /// Whether an empty buffer has room for @p size bytes, as of the last query of the kernel.
  [[nodiscard]] bool canEverTake(std::size_t size) const;

 private:
  void ask();

  int socket_;
  std::size_t room_ = 0;
  std::size_t whole_ = 0;
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_SEND_ROOM_H_
