// SPDX-License-Identifier: Apache-2.0
// The other ends of a server's sockets, on the loopback. Every wait has a deadline.
#ifndef TESTS_UNIT_SERVER_PEERS_H_
#define TESTS_UNIT_SERVER_PEERS_H_

#include <string>
#include <vector>

#include <netinet/in.h>

#include "base/unique_fd.h"

namespace zell::test {

/// 127.0.0.1 and @p port.
sockaddr_in loopback(int port);
/// A client connected to @p port. The kernel completes the connection before accept().
UniqueFd connectTo(int port);
/// A listening socket on @p port, with SO_REUSEADDR.
UniqueFd listenOn(int port, int backlog = 128);
/// A TCP socket bound to @p port, with SO_REUSEADDR, that does not listen.
UniqueFd bindTo(int port);
/// The next connection of @p listener; invalid, with the test failed, without one.
UniqueFd acceptFrom(const UniqueFd& listener);
/// Sends all of @p bytes.
void sendAll(const UniqueFd& socket, const std::string& bytes);
/// Sends one byte that sets the receiver's exceptional condition.
void sendUrgent(const UniqueFd& socket);
/// Waits until the other end has closed.
bool isClosedByPeer(const UniqueFd& socket);
/// Waits until bytes, the end of file or a connection are available on @p fd.
bool becomesReadable(int fd);
/// Local port of a socket.
int localPort(int fd);
/// The integer value of a socket option.
int optionOf(int fd, int level, int option);

/// The numbers of this process's open descriptors, ascending.
std::vector<int> openDescriptors();

/// A port whose connection queue is full: connecting to it never completes.
class BlackHole {
 public:
  explicit BlackHole(int port);

 private:
  UniqueFd listener_;
  std::vector<UniqueFd> queued_;
};

/// Occupies every descriptor number below a limit during its lifetime.
class NumbersTaken {
 public:
  /// Occupies the free numbers below @p limit.
  explicit NumbersTaken(int limit);
  /// Frees the @p count highest ones.
  void giveBack(int count);

 private:
  std::vector<UniqueFd> taken_;
};

/// Sets the limit of descriptors during its lifetime.
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
