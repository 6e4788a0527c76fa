// SPDX-License-Identifier: Apache-2.0
// Sends one frame whole, to a peer that may be slow, but not without end.
#ifndef ZELL_WIRE_FRAME_SENDER_H_
#define ZELL_WIRE_FRAME_SENDER_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace zell {

/// How long a peer may keep the daemon, which does nothing else meanwhile.
struct SendLimits {
  std::chrono::milliseconds stall{30000};  ///< without acknowledging a byte
  std::chrono::milliseconds whole{30000};  ///< for the frame...
  std::chrono::milliseconds perMiB{1000};  ///< ...and so much more for each MiB of it
};

/// What a frame carries, in parts that lie apart.
struct FramePayload {
  std::string_view head;
  std::string_view body{};
  std::string_view tail{};

  [[nodiscard]] std::size_t size() const { return head.size() + body.size() + tail.size(); }
};

/// Sends @p payload as one frame on @p socket, blocking or not. Never raises SIGPIPE. A frame that
/// the socket's buffer can take costs one system call. False with errno when it was not sent to its
/// end, ETIMEDOUT when the peer was too slow; how much of it went out is then unknown. On sockets
/// other than TCP, bytes that the socket took count as acknowledged.
[[nodiscard]] bool sendFrame(int socket, const FramePayload& payload,
                             const SendLimits& limits = {});

/// What goes before a payload of @p size bytes, for whoever sends frames in a loop of its own.
[[nodiscard]] std::string frameHead(std::size_t size);

}  // namespace zell

#endif  // ZELL_WIRE_FRAME_SENDER_H_
