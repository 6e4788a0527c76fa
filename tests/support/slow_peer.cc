// SPDX-License-Identifier: Apache-2.0
#include "support/slow_peer.h"

#include <algorithm>
#include <cstdlib>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace zell::test {
namespace {

// The kernel doubles both. The default of net.core.wmem_max allows the second.
constexpr int kReceiveBuffer = 8192;
constexpr int kSendBuffer = 200000;

}  // namespace

SlowPeer::SlowPeer(milliseconds pause)
    : sockets_(SocketPair::tcp(kReceiveBuffer)), pause_(pause), next_(pause) {
  const int size = kSendBuffer;
  if (setsockopt(sockets_.near(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size) != 0) {
    std::abort();
  }
}

int SlowPeer::wait(short events, int timeout) {
  const milliseconds end = now_ + milliseconds(timeout);
  int answer = ready(events);
  while (answer == 0 && now_ < end) {
    now_ = takesOn() ? std::min(next_, end) : end;
    if (now_ == next_ && takesOn()) {
      take();
      answer = ready(events);
    }
  }
  return answer;
}

// A system call, since a test may replace poll(2) by `wait`.
int SlowPeer::ready(short events) const {
  pollfd wanted{sockets_.near(), events, 0};
  const timespec atOnce{0, 0};
  return static_cast<int>(syscall(SYS_ppoll, &wanted, 1, &atOnce, nullptr, 0));
}

void SlowPeer::take() {
  taken_ += sockets_.receive(kStep);
  lastStep_ = now_;
  next_ += pause_;
}

}  // namespace zell::test
