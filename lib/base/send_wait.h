// SPDX-License-Identifier: Apache-2.0
// Waits until a slow peer takes more bytes, with a timeout.
#ifndef ZELL_BASE_SEND_WAIT_H_
#define ZELL_BASE_SEND_WAIT_H_

#include <chrono>
#include <cstddef>

namespace zell {

/// Waits in steps. After each step the caller sends what the socket takes, then calls `look` with
/// the time of a monotonic clock.
///
/// The kernel reports a TCP socket as writable when a third of its send buffer is free. On a slow
/// line that can take minutes. So the steps are short on a TCP socket, and bytes that the peer
/// acknowledged count as progress. On other sockets, bytes that the socket took count as progress.
class SendWait {
 public:
  using nanoseconds = std::chrono::nanoseconds;

  /// Starts at @p now. The wait times out after @p stall without progress, or after @p whole. Does
  /// not own @p socket.
  SendWait(int socket, nanoseconds stall, nanoseconds whole, nanoseconds now);

  /// Waits for @p events of poll(2), on a TCP socket for a thirtieth of the stall at most. A signal
  /// ends the step early. Returns false and sets errno on an error, ETIMEDOUT on a timeout.
  [[nodiscard]] bool step(short events);
  /// Ends a step at @p now, after the socket took @p sent more bytes. Checks for progress. A step
  /// without events counts with its full length, even if the clock shows less.
  void look(nanoseconds now, std::size_t sent = 0);

  /// Whether the last step found one of its events.
  [[nodiscard]] bool ready() const { return ready_; }
  /// Time until the next timeout, as of the last look; 0 or less after a timeout.
  [[nodiscard]] nanoseconds left() const;

 private:
  [[nodiscard]] bool measured() const { return unacknowledged_ >= 0; }
  [[nodiscard]] bool progressed(std::size_t sent);

  int socket_;
  nanoseconds stall_;
  nanoseconds end_;
  nanoseconds now_;
  nanoseconds progress_;      // time of the last progress
  long long unacknowledged_;  // bytes in the send buffer; below 0: unknown
  bool ready_ = false;
};

}  // namespace zell

#endif  // ZELL_BASE_SEND_WAIT_H_
