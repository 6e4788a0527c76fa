// SPDX-License-Identifier: Apache-2.0
#include "gateway/cli/control_client.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <runel/error.h>

namespace runelgw {
namespace {

constexpr std::size_t kLongestAnswer = std::size_t{64} << 20U;

runel::Error lost() {
  return {runel::Kind::link, runel::Cause::closed, "the gateway closed the control socket"};
}

// Receives some bytes, and the descriptor that comes with them.
// NOLINTNEXTLINE(readability-non-const-parameter): recvmsg writes to it
ssize_t receiveSome(int socket, char* bytes, std::size_t size, zell::UniqueFd& file) {
  iovec part{bytes, size};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  const cmsghdr* header = count > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
      header->cmsg_len == CMSG_LEN(sizeof(int))) {
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    file.reset(descriptor);
  }
  return count;
}

}  // namespace

runel::Result<std::optional<ControlClient>> ControlClient::connect(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) {
    return runel::Error::local(path, ENAMETOOLONG);
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  zell::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) {
    return runel::Error::local(path, errno);
  }
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return std::optional<ControlClient>(ControlClient(std::move(socket)));
  }
  if (errno == ENOENT || errno == ECONNREFUSED) {
    return std::optional<ControlClient>();
  }
  return runel::Error::local(path, errno);
}

runel::Result<ControlAnswer> ControlClient::ask(const std::string& line) {
  const std::string request = line + "\n";
  std::size_t sent = 0;
  while (sent < request.size()) {
    const ssize_t count =
        ::send(socket_.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno != EINTR) {
      return lost();
    }
    sent += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  ControlAnswer answer;
  while (answer.line.empty() || answer.line.back() != '\n') {
    char bytes[4096];
    const ssize_t count = receiveSome(socket_.get(), bytes, sizeof bytes, answer.file);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0 || answer.line.size() > kLongestAnswer) {
      return lost();
    }
    answer.line.append(bytes, static_cast<std::size_t>(count));
  }
  answer.line.pop_back();
  return answer;
}

}  // namespace runelgw
