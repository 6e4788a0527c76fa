// SPDX-License-Identifier: Apache-2.0
#include "sockets.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include "meter.h"

namespace zell::bench {
namespace {

constexpr int kTimeoutSeconds = 60;
constexpr std::size_t kPiece = 256 * 1024;
constexpr int kBacklog = 1024;

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void setUp(int fd) {
  const int on = 1;
  (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const timeval timeout{kTimeoutSeconds, 0};
  (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

// Whether the reader at @p port has read everything from the connection from @p ownPort.
bool allRead(int port, int ownPort) {
  std::ifstream table("/proc/net/tcp");
  std::string line;
  while (std::getline(table, line)) {
    unsigned local = 0;
    unsigned remote = 0;
    unsigned waiting = 0;
    if (std::sscanf(line.c_str(), " %*d: %*x:%x %*x:%x %*x %*x:%x", &local, &remote, &waiting) ==
            3 &&
        local == static_cast<unsigned>(port) && remote == static_cast<unsigned>(ownPort)) {
      return waiting == 0;
    }
  }
  fail("the connection was closed");
}

std::size_t unsent(int fd) {
  tcp_info info{};
  socklen_t length = sizeof info;
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) {
    fail("TCP_INFO");
  }
  return info.tcpi_unacked;
}

}  // namespace

void fail(const std::string& what) {
  const int error = errno;
  std::fprintf(stderr, "bench_load: %s%s%s\n", what.c_str(), error != 0 ? ": " : "",
               error != 0 ? std::strerror(error) : "");
  std::exit(1);
}

UniqueFd listenOn(int port) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  (void)setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = loopback(port);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd.get(), kBacklog) != 0) {
    fail("cannot listen on " + std::to_string(port));
  }
  return fd;
}

UniqueFd acceptFrom(const UniqueFd& listener) {
  pollfd wanted{listener.get(), POLLIN, 0};
  if (poll(&wanted, 1, kTimeoutSeconds * 1000) != 1) {
    fail("no connection before the timeout");
  }
  UniqueFd fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!fd.valid()) {
    fail("accept");
  }
  setUp(fd.get());
  return fd;
}

UniqueFd connectTo(int port) {
  const sockaddr_in address = loopback(port);
  const std::uint64_t end = now() + kTimeoutSeconds * UINT64_C(1000000000);
  do {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      setUp(fd.get());
      return fd;
    }
    (void)poll(nullptr, 0, 1);
  } while (now() < end);
  fail("cannot connect to " + std::to_string(port));
}

void sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) {
      fail("send");
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

std::size_t receiveSome(int fd, char* buffer, std::size_t size) {
  const ssize_t got = recv(fd, buffer, size, 0);
  if (got <= 0) {
    errno = got == 0 ? ECONNRESET : errno;
    fail("recv");
  }
  return static_cast<std::size_t>(got);
}

void receive(int fd, std::size_t count) {
  std::vector<char> buffer(std::min(count, kPiece));
  while (count > 0) {
    count -= receiveSome(fd, buffer.data(), std::min(count, buffer.size()));
  }
}

std::size_t receiveReply(int fd) {
  std::string head;
  std::size_t mark = 0;
  while ((mark = head.find('\x02')) == std::string::npos) {
    char piece[64];
    head.append(piece, receiveSome(fd, piece, sizeof piece));
  }
  const std::size_t size = std::strtoul(head.c_str() + 1, nullptr, 10);
  const std::size_t missing = size - std::min(size, head.size() - mark - 1);
  // The fields after the text are the last bytes. 64 bytes are enough for them.
  const std::size_t tail = std::min<std::size_t>(missing, 64);
  receive(fd, missing - tail);
  std::string end(tail, '\0');
  for (std::size_t have = 0; have < tail;) {
    have += receiveSome(fd, end.data() + have, tail - have);
  }
  head += end;
  // Status and state, then result, errno and signal, all of them 0.
  if (head.size() < 6 || head.compare(head.size() - 6, 6, " 0 0 0") != 0) {
    errno = 0;
    fail("a task failed: ..." + head.substr(head.size() - std::min<std::size_t>(head.size(), 20)));
  }
  return mark + 1 + size;
}

void waitUntilRead(int fd, int port) {
  sockaddr_in own{};
  socklen_t length = sizeof own;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) != 0) {
    fail("getsockname");
  }
  const std::uint64_t end = now() + kTimeoutSeconds * UINT64_C(1000000000);
  while (unsent(fd) != 0 || !allRead(port, ntohs(own.sin_port))) {
    if (now() > end) {
      fail("the server did not read all data before the timeout");
    }
    (void)poll(nullptr, 0, 2);
  }
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  std::string content(static_cast<std::size_t>(std::max<std::streamoff>(file.tellg(), 0)), '\0');
  file.seekg(0);
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  if (!file) {
    fail("cannot read " + path);
  }
  return content;
}

}  // namespace zell::bench
