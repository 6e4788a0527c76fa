// SPDX-License-Identifier: Apache-2.0
#include "unit/server/peers.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace zell::test {
namespace {

constexpr int kTimeoutMs = 20000;

sockaddr* generic(sockaddr_in* address) {
  return reinterpret_cast<sockaddr*>(address);
}

UniqueFd streamSocket(int flags = 0) {
  return UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

bool waitFor(int fd, short events) {
  pollfd entry{fd, events, 0};
  return poll(&entry, 1, kTimeoutMs) == 1;
}

}  // namespace

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

UniqueFd connectTo(int port) {
  UniqueFd fd = streamSocket();
  sockaddr_in address = loopback(port);
  EXPECT_EQ(connect(fd.get(), generic(&address), sizeof address), 0)
      << "port " << port << ": " << std::strerror(errno);
  return fd;
}

UniqueFd bindTo(int port) {
  UniqueFd fd = streamSocket();
  const int on = 1;
  EXPECT_EQ(setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
  sockaddr_in address = loopback(port);
  EXPECT_EQ(bind(fd.get(), generic(&address), sizeof address), 0) << std::strerror(errno);
  return fd;
}

UniqueFd listenOn(int port, int backlog) {
  UniqueFd fd = bindTo(port);
  EXPECT_EQ(listen(fd.get(), backlog), 0) << std::strerror(errno);
  return fd;
}

UniqueFd acceptFrom(const UniqueFd& listener) {
  if (!waitFor(listener.get(), POLLIN)) {
    ADD_FAILURE() << "nobody connected";
    return UniqueFd();
  }
  return UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

void sendAll(const UniqueFd& socket, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = send(socket.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    ASSERT_GT(n, 0) << std::strerror(errno);
    sent += static_cast<std::size_t>(n);
  }
}

void sendUrgent(const UniqueFd& socket) {
  EXPECT_EQ(send(socket.get(), "!", 1, MSG_OOB | MSG_NOSIGNAL), 1) << std::strerror(errno);
}

bool isClosedByPeer(const UniqueFd& socket) {
  char byte = 0;
  if (!waitFor(socket.get(), POLLIN)) {
    return false;
  }
  const ssize_t got = recv(socket.get(), &byte, 1, MSG_DONTWAIT);
  return got == 0 || (got < 0 && errno == ECONNRESET);
}

bool becomesReadable(int fd) {
  return waitFor(fd, POLLIN);
}

int localPort(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  EXPECT_EQ(getsockname(fd, generic(&address), &length), 0) << std::strerror(errno);
  return ntohs(address.sin_port);
}

int optionOf(int fd, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, option, &value, &length), 0) << std::strerror(errno);
  return value;
}

std::vector<int> openDescriptors() {
  std::vector<int> numbers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    numbers.push_back(std::stoi(entry.path().filename()));
  }
  // The descriptor of the directory was among them, and is closed now.
  numbers.erase(std::remove_if(numbers.begin(), numbers.end(),
                               [](int fd) { return fcntl(fd, F_GETFD) == -1; }),
                numbers.end());
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// A queue of length 0 still accepts one connection. Further handshakes get no answer.
BlackHole::BlackHole(int port) : listener_(listenOn(port, 0)) {
  for (int i = 0; i < 4; ++i) {
    UniqueFd fd = streamSocket(SOCK_NONBLOCK);
    sockaddr_in address = loopback(port);
    (void)connect(fd.get(), generic(&address), sizeof address);
    queued_.push_back(std::move(fd));
  }
}

NumbersTaken::NumbersTaken(int limit) {
  UniqueFd fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
  while (fd.valid() && fd.get() < limit) {
    taken_.push_back(std::move(fd));
    fd.reset(fcntl(taken_.front().get(), F_DUPFD_CLOEXEC, 0));
  }
}

void NumbersTaken::giveBack(int count) {
  for (int i = 0; i < count; ++i) {
    taken_.pop_back();
  }
}

DescriptorLimit::DescriptorLimit(int limit) : before_(0) {
  rlimit now{};
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
  before_ = now.rlim_cur;
  now.rlim_cur = static_cast<rlim_t>(limit);
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0) << limit << ": " << std::strerror(errno);
}

DescriptorLimit::~DescriptorLimit() {
  rlimit now{};
  (void)getrlimit(RLIMIT_NOFILE, &now);
  now.rlim_cur = before_;
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0);
}

}  // namespace zell::test
