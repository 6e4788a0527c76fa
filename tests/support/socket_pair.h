// SPDX-License-Identifier: Apache-2.0
// Two connected stream sockets: one for the handler under test, one for its peer, the test.
#ifndef TESTS_SUPPORT_SOCKET_PAIR_H_
#define TESTS_SUPPORT_SOCKET_PAIR_H_

#include <string>

#include "base/unique_fd.h"

namespace zell::test {

class SocketPair {
 public:
  /// Local sockets: what one end writes waits at the other as soon as write(2) is back.
  static SocketPair local();
  /// TCP over the loopback. @p receiveBuffer sets SO_RCVBUF of the far end; 0: the default.
  static SocketPair tcp(int receiveBuffer = 0);

  /// The handler's end.
  [[nodiscard]] int near() const { return near_.get(); }
  /// The peer's end.
  [[nodiscard]] int far() const { return far_.get(); }

  /// Everything that waits at the peer's end; does not wait for more.
  [[nodiscard]] std::string received() const;
  /// Exactly @p count bytes from the peer's end, or fewer when the end comes first.
  [[nodiscard]] std::string receive(std::size_t count) const;
  /// Whether the peer's end has nothing more to read, ever.
  [[nodiscard]] bool ended() const;

  /// The peer goes away.
  void closeFar() { far_.reset(); }
  /// The peer goes away with a reset (TCP).
  void resetFar();

 private:
  SocketPair(UniqueFd near, UniqueFd far);

  UniqueFd near_;
  UniqueFd far_;
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_SOCKET_PAIR_H_
