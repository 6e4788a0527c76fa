// SPDX-License-Identifier: Apache-2.0
// The other ends of a server's sockets. Everything is on the loopback; every wait has a deadline.
#ifndef TESTS_UNIT_SERVER_PEERS_H_
#define TESTS_UNIT_SERVER_PEERS_H_

#include <string>
#include <vector>

#include <netinet/in.h>

#include "base/unique_fd.h"

namespace zell::test {

/// 127.0.0.1 and @p port.
sockaddr_in loopback(int port);
/// A client connected to @p port; the kernel answers for a server that has not accepted yet.
UniqueFd connectTo(int port);
/// A listening socket on @p port, with SO_REUSEADDR.
UniqueFd listenOn(int port, int backlog = 128);
/// A TCP socket bound to @p port, with SO_REUSEADDR, that does not listen.
UniqueFd bindTo(int port);
/// The next connection of @p listener. Invalid, with the test failed, when none comes.
UniqueFd acceptFrom(const UniqueFd& listener);
/// Sends all of @p bytes.
void sendAll(const UniqueFd& socket, const std::string& bytes);
/// Sends one byte that sets the receiver's exceptional condition.
void sendUrgent(const UniqueFd& socket);
/// True when the other end has closed: waits for that.
bool isClosedByPeer(const UniqueFd& socket);
/// True when bytes, the end or a connection wait on @p fd: waits for that.
bool becomesReadable(int fd);
/// Local port of a socket.
int localPort(int fd);
/// The integer that getsockopt gives.
int optionOf(int fd, int level, int option);

/// The numbers of this process's open descriptors, ascending.
std::vector<int> openDescriptors();

/// A port whose connection queue is full: connecting to it takes for ever.
class BlackHole {
 public:
  explicit BlackHole(int port);

 private:
  UniqueFd listener_;
  std::vector<UniqueFd> queued_;
};

/// Takes every descriptor number below a limit, and gives them back at its end.
class NumbersTaken {
 public:
  /// Takes the free numbers below @p limit.
  explicit NumbersTaken(int limit);
  /// Gives back the highest ones, @p count of them.
  void giveBack(int count);

 private:
  std::vector<UniqueFd> taken_;
};

/// Sets how many descriptors the process may have; the old number comes back at the end.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int limit);
  ~DescriptorLimit();
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  unsigned long before_;
};

}  // namespace zell::test

#endif  // TESTS_UNIT_SERVER_PEERS_H_
