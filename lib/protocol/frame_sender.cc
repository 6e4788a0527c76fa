// SPDX-License-Identifier: Apache-2.0
#include "protocol/frame_sender.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <numeric>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "base/send_wait.h"
#include "base/system.h"
#include "protocol/protocol.h"

namespace zell {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kMaxHeader = 24;  // two markers and the digits of any length
constexpr std::size_t kMiB = 1048576;

// Writes the head of a frame to @p head, which has room for kMaxHeader bytes. Returns its length.
std::size_t writeHead(char* head, std::size_t payload) {
  head[0] = kFrameStart;
  char* end = std::to_chars(head + 1, head + kMaxHeader - 1, payload).ptr;
  *end++ = kCountEnd;
  return static_cast<std::size_t>(end - head);
}

// A frame in transmission: the unsent parts of header and payload.
class Frame {
 public:
  explicit Frame(const FramePayload& payload) {
    parts_[0] = partOf({header_, writeHead(header_, payload.size())});
    parts_[1] = partOf(payload.head);
    parts_[2] = partOf(payload.body);
    parts_[3] = partOf(payload.tail);
  }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  [[nodiscard]] bool sent() const { return left() == 0; }

  /// Sends as much as @p socket accepts now. Returns false with errno on an error; a full buffer
  /// and a signal are not errors.
  bool sendSome(int socket) {
    msghdr message{};
    message.msg_iov = parts_;
    message.msg_iovlen = std::size(parts_);
    const ssize_t taken = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (taken < 0) {
      return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    }
    advance(static_cast<std::size_t>(taken));
    return true;
  }

  [[nodiscard]] std::size_t left() const {
    return std::accumulate(std::begin(parts_), std::end(parts_), std::size_t{0},
                           [](std::size_t sum, const iovec& part) { return sum + part.iov_len; });
  }

 private:
  // iovec has no const version; nothing writes through this pointer.
  static iovec partOf(std::string_view bytes) {
    return {const_cast<char*>(bytes.data()), bytes.size()};
  }

  void advance(std::size_t taken) {
    for (iovec& part : parts_) {
      const std::size_t step = std::min(taken, part.iov_len);
      part.iov_base = static_cast<char*>(part.iov_base) + step;
      part.iov_len -= step;
      taken -= step;
    }
  }

  char header_[kMaxHeader];
  iovec parts_[4];  // the header, then the parts of the payload
};

// Sends what the socket's buffer did not accept at once.
bool sendRest(int socket, Frame& frame, milliseconds stall, milliseconds whole) {
  SendWait wait(socket, stall, whole, sys::monotonicTime());
  while (!frame.sent()) {
    if (!wait.step(POLLOUT)) {
      return false;
    }
    const std::size_t before = frame.left();
    if (!frame.sendSome(socket)) {
      return false;
    }
    wait.look(sys::monotonicTime(), before - frame.left());
  }
  return true;
}

}  // namespace

bool sendFrame(int socket, const FramePayload& payload, const SendLimits& limits) {
  Frame frame(payload);
  if (!frame.sendSome(socket)) {
    return false;
  }
  if (frame.sent()) {
    return true;
  }
  const auto mebibytes = static_cast<milliseconds::rep>(payload.size()) * limits.perMiB.count() /
                         static_cast<milliseconds::rep>(kMiB);
  return sendRest(socket, frame, limits.stall, limits.whole + milliseconds(mebibytes));
}

std::string frameHead(std::size_t size) {
  char head[kMaxHeader];
  return std::string(head, writeHead(head, size));
}

}  // namespace zell
