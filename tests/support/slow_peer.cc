// SPDX-License-Identifier: Apache-2.0
#include "support/slow_peer.h"

#include <algorithm>
#include <cstdlib>

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace zell::test {
namespace {

// The kernel doubles both. The default of net.core.wmem_max allows the second.
constexpr int kReceiveBuffer = 8192;
constexpr int kSendBuffer = 200000;

constexpr int kLooks = 100000;  // at least 10 s, against a hang only
constexpr timespec kBetweenLooks{0, 100000};

#ifdef SYS_ppoll_time64
constexpr long kPpoll = SYS_ppoll_time64;  // a 32-bit processor
#else
constexpr long kPpoll = SYS_ppoll;
#endif

// Result of SIOCOUTQ or SIOCOUTQNSD.
int bytes(int socket, unsigned long request) {
  int count = 0;
  if (ioctl(socket, request, &count) != 0) {
    std::abort();
  }
  return count;
}

}  // namespace

SlowPeer::SlowPeer(milliseconds pause)
    : sockets_(SocketPair::tcp(kReceiveBuffer)), pause_(pause), next_(pause) {
  const int size = kSendBuffer;
  if (setsockopt(sockets_.near(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size) != 0) {
    std::abort();
  }
}

int SlowPeer::wait(short events, int timeout) {
  settle();
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

// A direct system call, because a test may replace poll(2) by `wait`.
int SlowPeer::ready(short events) const {
  pollfd wanted{sockets_.near(), events, 0};
  const timespec atOnce{0, 0};
  return static_cast<int>(syscall(kPpoll, &wanted, 1, &atOnce, nullptr, 0));
}

void SlowPeer::take() {
  taken_ += sockets_.receive(kStep);
  settle();
  lastStep_ = now_;
  next_ += pause_;
}

std::chrono::nanoseconds SlowPeer::clock() const {
  settle();
  return now_;
}

void SlowPeer::fill() {
  const std::string text(4096, 'x');
  bool taken = true;
  while (taken) {
    taken = false;
    while (send(sockets_.near(), text.data(), text.size(), MSG_DONTWAIT) > 0) {
      taken = true;
    }
    settle();
  }
}

void SlowPeer::settle() const {
  for (int look = 0; look < kLooks; ++look) {
    if (sockets_.far() < 0 || settled()) {
      return;
    }
    (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &kBetweenLooks, nullptr);
  }
  std::abort();
}

// Nothing is in flight, and nothing is left to send or the peer's window is closed.
bool SlowPeer::settled() const {
  tcp_info info{};
  socklen_t length = sizeof info;
  if (getsockopt(sockets_.near(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0) {
    std::abort();
  }
  const int unsent = bytes(sockets_.near(), SIOCOUTQNSD);
  const bool inFlight = bytes(sockets_.near(), SIOCOUTQ) != unsent;
  return !inFlight && (unsent == 0 || info.tcpi_snd_wnd == 0);
}

}  // namespace zell::test
