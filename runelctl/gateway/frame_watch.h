// SPDX-License-Identifier: Apache-2.0
// Finds the ends of frames in a stream that passes by.
#ifndef RUNELCTL_GATEWAY_FRAME_WATCH_H_
#define RUNELCTL_GATEWAY_FRAME_WATCH_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace runelctl {

/// Holds no frame: only its first bytes.
class FrameWatch {
 public:
  struct Frame {
    std::uint64_t end;  ///< the number of bytes of the stream up to its end
    std::string head;   ///< the first bytes of its payload
  };
  /// The most bytes of a payload in `Frame::head`.
  static constexpr std::size_t kHead = 256;

  /// Follows the next @p bytes. Returns the frames that end in them. Stops at malformed bytes.
  [[nodiscard]] std::vector<Frame> follow(std::string_view bytes);

  /// The bytes of the stream so far.
  [[nodiscard]] std::uint64_t position() const { return position_; }
  /// Whether a frame has begun and not ended.
  [[nodiscard]] bool within() const { return state_ != State::start; }
  /// The first bytes of the payload that has begun.
  [[nodiscard]] const std::string& head() const { return head_; }
  [[nodiscard]] bool malformed() const { return state_ == State::malformed; }

 private:
  enum class State { start, count, payload, malformed };

  void takeByte(char byte);

  State state_ = State::start;
  std::uint64_t position_ = 0;
  std::size_t digits_ = 0;
  std::size_t left_ = 0;  // of the payload; the count while that is read
  std::string head_;
};

}  // namespace runelctl

#endif  // RUNELCTL_GATEWAY_FRAME_WATCH_H_
