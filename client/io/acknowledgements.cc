// SPDX-License-Identifier: Apache-2.0
#include "client/io/acknowledgements.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <linux/sockios.h>

namespace runel {
namespace {

// As long as the keepalive probes take.
constexpr unsigned kLongestUnacknowledged = 60000;  // milliseconds
// More than the retransmissions of a lossy network need.
constexpr unsigned kRecentAcknowledgement = 5000;  // milliseconds
// A single one may be on the way.
constexpr unsigned kMostUnansweredProbes = 1;

bool readTcpInfo(int socket, tcp_info& info) {
  socklen_t size = sizeof info;
  return getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0;
}

// The peer takes no more data: there is some to send, and nothing is in flight.
bool isWindowClosed(int socket, const tcp_info& info) {
  int unsent = 0;
  return ioctl(socket, SIOCOUTQNSD, &unsent) == 0 && unsent > 0 && info.tcpi_unacked == 0;
}

}  // namespace

bool isAcknowledged(int socket) {
  int left = 0;
  return ioctl(socket, SIOCOUTQ, &left) != 0 || left == 0;
}

bool acknowledges(int socket) {
  tcp_info info{};
  if (!readTcpInfo(socket, info)) {
    return true;
  }
  const bool waits = !isAcknowledged(socket) && !isWindowClosed(socket, info) &&
                     info.tcpi_last_ack_recv > kRecentAcknowledgement;
  return !waits && info.tcpi_probes <= kMostUnansweredProbes;
}

bool limitAcknowledgements(int socket) {
  tcp_info info{};
  if (!readTcpInfo(socket, info)) {
    return false;
  }
  const unsigned limit = isWindowClosed(socket, info) ? 0 : kLongestUnacknowledged;
  return setsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &limit, sizeof limit) == 0;
}

}  // namespace runel
