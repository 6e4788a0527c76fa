// SPDX-License-Identifier: Apache-2.0
#include "gateway/frame_watch.h"

#include <algorithm>
#include <utility>

#include "protocol/protocol.h"

namespace runelctl {

std::vector<FrameWatch::Frame> FrameWatch::follow(std::string_view bytes) {
  std::vector<Frame> ended;
  while (!bytes.empty() && state_ != State::malformed) {
    std::size_t taken = 1;
    if (state_ == State::payload) {
      taken = std::min(left_, bytes.size());
      head_.append(bytes.substr(0, std::min(taken, kHead - std::min(kHead, head_.size()))));
      left_ -= taken;
    } else {
      takeByte(bytes.front());
    }
    position_ += taken;
    bytes.remove_prefix(taken);
    if (state_ == State::payload && left_ == 0) {
      ended.push_back({position_, std::exchange(head_, std::string())});
      state_ = State::start;
    }
  }
  return ended;
}

void FrameWatch::takeByte(char byte) {
  if (state_ == State::start && byte == zell::kFrameStart) {
    state_ = State::count;
    digits_ = 0;
    left_ = 0;
  } else if (state_ == State::count && byte >= '0' && byte <= '9' &&
             digits_ < zell::kMaxCountDigits) {
    ++digits_;
    left_ = left_ * 10 + static_cast<std::size_t>(byte - '0');
  } else if (state_ == State::count && byte == zell::kCountEnd && digits_ > 0 &&
             left_ <= zell::kMaxFramePayload) {
    state_ = State::payload;
  } else {
    state_ = State::malformed;
  }
}

}  // namespace runelctl
