// SPDX-License-Identifier: Apache-2.0
// Two connected stream sockets: one for the handler under test, one for the test as its peer.
#ifndef TESTS_SUPPORT_SOCKET_PAIR_H_
#define TESTS_SUPPORT_SOCKET_PAIR_H_

#include <string>

#include "base/unique_fd.h"

namespace zell::test {

class SocketPair {
 public:
  /// Local sockets: written bytes are available at the other end as soon as write(2) returns.
  static SocketPair local();
  /// TCP over the loopback. @p receiveBuffer sets SO_RCVBUF of the far end; 0: the default.
  static SocketPair tcp(int receiveBuffer = 0);

  /// The handler's end.
  [[nodiscard]] int near() const { return near_.get(); }
  /// The peer's end.
  [[nodiscard]] int far() const { return far_.get(); }

  /// All available bytes at the peer's end; does not block.
  [[nodiscard]] std::string received() const;
  /// Exactly @p count bytes from the peer's end, or fewer at the end of file.
  [[nodiscard]] std::string receive(std::size_t count) const;
  /// Whether the peer's end is at the end of file.
  [[nodiscard]] bool ended() const;

  /// Closes the peer's end.
  void closeFar() { far_.reset(); }
  /// Closes the peer's end with a reset (TCP).
  void resetFar();

 private:
  SocketPair(UniqueFd near, UniqueFd far);

  UniqueFd near_;
  UniqueFd far_;
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_SOCKET_PAIR_H_
