// SPDX-License-Identifier: Apache-2.0
// A peer on a slow line: real TCP sockets in simulated time.
#ifndef TESTS_SUPPORT_SLOW_PEER_H_
#define TESTS_SUPPORT_SLOW_PEER_H_

#include <chrono>
#include <cstddef>
#include <string>

#include "support/socket_pair.h"

namespace zell::test {

/// A TCP connection with a send buffer of fixed size. The kernel reports the near socket as
/// writable when a third of that buffer is free. Time passes in `wait` only. Segments and
/// acknowledgements take no simulated time: `wait` and `clock` let them arrive first.
class SlowPeer {
 public:
  using milliseconds = std::chrono::milliseconds;

  /// Bytes that the peer reads in a step. More than its receive buffer holds, so that each step
  /// causes an acknowledgement.
  static constexpr std::size_t kStep = 32768;

  /// Reads a step every @p pause.
  explicit SlowPeer(milliseconds pause);

  /// Reads nothing from @p time on.
  void stopAt(milliseconds time) { stop_ = time; }

  /// Resets the connection.
  void reset() { sockets_.resetFar(); }

  /// poll(2) for the near socket, in simulated time.
  int wait(short events, int timeout);

  /// Fills the send buffer, and the receive buffer of the peer.
  void fill();
  /// The clock of the program under test.
  [[nodiscard]] std::chrono::nanoseconds clock() const;
  /// Waits in real time until the peer has acknowledged all that its receive buffer has room for.
  /// The kernel delays an acknowledgement by 40 ms or more.
  void settle() const;

  [[nodiscard]] const SocketPair& sockets() const { return sockets_; }
  [[nodiscard]] milliseconds now() const { return now_; }
  /// Time of the last step.
  [[nodiscard]] milliseconds lastStep() const { return lastStep_; }
  /// All bytes that the peer has read.
  [[nodiscard]] const std::string& taken() const { return taken_; }

 private:
  [[nodiscard]] bool takesOn() const { return next_ < stop_; }
  [[nodiscard]] int ready(short events) const;
  [[nodiscard]] bool settled() const;
  void take();

  SocketPair sockets_;
  milliseconds pause_;
  milliseconds stop_ = milliseconds::max();
  milliseconds now_{0};
  milliseconds next_;
  milliseconds lastStep_{0};
  std::string taken_;
};

}  // namespace zell::test

#endif  // TESTS_SUPPORT_SLOW_PEER_H_
