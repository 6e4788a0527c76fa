// SPDX-License-Identifier: Apache-2.0
#include "base/send_wait.h"

#include <algorithm>
#include <cerrno>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

#include "base/tcp.h"

namespace zell {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr int kLooks = 30;  // steps per stall: one a second for a stall of 30 s

// The bytes that the peer has not acknowledged, sent or unsent. -1 on an error.
long long unacknowledgedBytes(int socket) {
  int bytes = 0;
  return ioctl(socket, SIOCOUTQ, &bytes) == 0 ? bytes : -1;
}

}  // namespace

// Local sockets answer SIOCOUTQ too, but count kernel memory instead of bytes.
SendWait::SendWait(int socket, nanoseconds stall, nanoseconds whole, nanoseconds now)
    : socket_(socket),
      stall_(stall),
      end_(now + whole),
      now_(now),
      progress_(now),
      unacknowledged_(isTcp(socket) ? unacknowledgedBytes(socket) : -1) {}

bool SendWait::step(short events) {
  const nanoseconds most = measured() ? std::min(left(), stall_ / kLooks) : left();
  const milliseconds rounded = std::chrono::ceil<milliseconds>(most);
  pollfd wanted{socket_, events, 0};
  const int count = rounded.count() <= 0 ? 0 : poll(&wanted, 1, static_cast<int>(rounded.count()));
  ready_ = count > 0;
  if (count != 0) {
    return ready_ || errno == EINTR;
  }
  if (!measured() || rounded.count() <= 0) {
    errno = ETIMEDOUT;
    return false;
  }
  now_ += rounded;
  return true;
}

void SendWait::look(nanoseconds now, std::size_t sent) {
  now_ = std::max(now_, now);
  if (progressed(sent)) {
    progress_ = now_;
  }
}

nanoseconds SendWait::left() const {
  return std::min(progress_ + stall_, end_) - now_;
}

// The count grows by the bytes that the socket took. The peer acknowledged the difference to the
// sum of the old count and these bytes.
bool SendWait::progressed(std::size_t sent) {
  if (!measured()) {
    return sent > 0;
  }
  const long long all = unacknowledged_ + static_cast<long long>(sent);
  unacknowledged_ = unacknowledgedBytes(socket_);
  return measured() ? unacknowledged_ < all : sent > 0;
}

}  // namespace zell
