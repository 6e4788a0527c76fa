// SPDX-License-Identifier: Apache-2.0
// Sends one complete frame, with a timeout for slow peers.
#ifndef ZELL_PROTOCOL_FRAME_SENDER_H_
#define ZELL_PROTOCOL_FRAME_SENDER_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace zell {

/// The time limits for a peer. The daemon is blocked while it sends.
struct SendLimits {
  std::chrono::milliseconds stall{30000};  ///< without an acknowledged byte
  std::chrono::milliseconds whole{30000};  ///< for the frame...
  std::chrono::milliseconds perMiB{1000};  ///< ...and in addition for each MiB of it
};

/// The payload of a frame, in separate parts.
struct FramePayload {
  std::string_view head;
  std::string_view body{};
  std::string_view tail{};

  [[nodiscard]] std::size_t size() const { return head.size() + body.size() + tail.size(); }
};

/// Sends @p payload as one frame on @p socket, blocking or not. Never raises SIGPIPE. Makes one
/// system call for a frame that fits into the socket's buffer. Returns false with errno when the
/// frame was not sent completely, ETIMEDOUT when the peer was too slow; an unknown part of it may
/// have been sent. On sockets other than TCP, bytes that the socket accepted count as acknowledged.
[[nodiscard]] bool sendFrame(int socket, const FramePayload& payload,
                             const SendLimits& limits = {});

/// The head of a frame with a payload of @p size bytes, for callers that send frames themselves.
[[nodiscard]] std::string frameHead(std::size_t size);

}  // namespace zell

#endif  // ZELL_PROTOCOL_FRAME_SENDER_H_
