// SPDX-License-Identifier: Apache-2.0
#include "unit/protocol/socket_calls.h"

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace zell::test {
namespace {

SocketCalls* g_calls = nullptr;

#ifdef SYS_ppoll_time64
constexpr long kPpoll = SYS_ppoll_time64;  // a 32-bit processor
#else
constexpr long kPpoll = SYS_ppoll;
#endif

int takeFirst(std::deque<int>& queue) {
  const int first = queue.front();
  queue.pop_front();
  return first;
}

ssize_t realSend(int fd, const msghdr* message, int flags) {
  return syscall(SYS_sendmsg, fd, message, flags);
}

// Sends no more than the first @p most bytes of @p message.
ssize_t sendPart(int fd, const msghdr& message, int flags, std::size_t most) {
  std::vector<iovec> parts(message.msg_iov, message.msg_iov + message.msg_iovlen);
  for (iovec& part : parts) {
    part.iov_len = std::min(part.iov_len, most);
    most -= part.iov_len;
  }
  msghdr cut = message;
  cut.msg_iov = parts.data();
  return realSend(fd, &cut, flags);
}

ssize_t sendCounted(int fd, const msghdr* message, int flags) {
  if (g_calls == nullptr) {
    return realSend(fd, message, flags);
  }
  ++g_calls->sends;
  g_calls->sendFlags = flags;
  const int error = g_calls->sendErrors.empty() ? 0 : takeFirst(g_calls->sendErrors);
  if (error != 0) {
    errno = error;
    return -1;
  }
  return g_calls->sendAtMost == 0 ? realSend(fd, message, flags)
                                  : sendPart(fd, *message, flags, g_calls->sendAtMost);
}

int realPoll(pollfd* wanted, nfds_t count, int timeout) {
  const timespec limit{timeout / 1000, static_cast<long>(timeout % 1000) * 1000000};
  return static_cast<int>(
      syscall(kPpoll, wanted, count, timeout < 0 ? nullptr : &limit, nullptr, 0));
}

int pollCounted(pollfd* wanted, nfds_t count, int timeout) {
  if (g_calls == nullptr) {
    return realPoll(wanted, count, timeout);
  }
  g_calls->pollTimeouts.push_back(timeout);
  if (g_calls->pollAnswers.empty()) {
    return g_calls->poll ? g_calls->poll(wanted->events, timeout)
                         : realPoll(wanted, count, timeout);
  }
  const int answer = takeFirst(g_calls->pollAnswers);
  errno = answer < 0 ? -answer : errno;
  return answer < 0 ? -1 : answer;
}

}  // namespace

SocketCalls::SocketCalls() {
  g_calls = this;
}

SocketCalls::~SocketCalls() {
  g_calls = nullptr;
}

}  // namespace zell::test

// Replace the functions of the C library at link time.
extern "C" {

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  return zell::test::sendCounted(fd, message, flags);
}

int poll(pollfd* wanted, nfds_t count, int timeout) {
  return zell::test::pollCounted(wanted, count, timeout);
}

int __poll_chk(pollfd* wanted, nfds_t count, int timeout, std::size_t /*size*/) {
  return zell::test::pollCounted(wanted, count, timeout);
}

}  // extern "C"
