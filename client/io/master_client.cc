// SPDX-License-Identifier: Apache-2.0
#include "client/io/master_client.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "base/unique_fd.h"
#include "client/io/connector.h"
#include "client/io/local_peer.h"

namespace runel {
namespace {

constexpr std::string_view kQuestion = "devices\n";
constexpr std::size_t kListReadSize = 65536;

void limitWaits(int socket, Milliseconds limit) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
  timeval time{};
  time.tv_sec = seconds.count();
  time.tv_usec = std::chrono::duration_cast<std::chrono::microseconds>(limit - seconds).count();
  (void)setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);  // cannot fail on a socket
  (void)setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

bool connectTo(int socket, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  // The generic address type of the socket calls.
  return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

std::optional<Error> listDevices(const std::string& path, Milliseconds limit, std::string& lines) {
  const zell::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  limitWaits(socket.get(), limit);
  if (!socket.valid() || !connectTo(socket.get(), path)) {
    return noMaster(path, errno);
  }
  if (!peerIsUs(socket.get())) {
    return noMaster(path, EPERM);
  }
  if (send(socket.get(), kQuestion.data(), kQuestion.size(), MSG_NOSIGNAL) < 0) {
    return Error{Kind::link, Cause::closed, "the master closed the connection", errno};
  }
  std::string part(kListReadSize, '\0');
  ssize_t got = recv(socket.get(), part.data(), part.size(), 0);
  while (got > 0) {
    lines.append(part, 0, static_cast<std::size_t>(got));
    got = recv(socket.get(), part.data(), part.size(), 0);
  }
  if (got < 0) {
    return errno == EAGAIN
               ? Error{Kind::timeout, Cause::other, "no answer from the master", ETIMEDOUT}
               : Error{Kind::link, Cause::closed, "the master closed the connection", errno};
  }
  return std::nullopt;
}

}  // namespace runel
