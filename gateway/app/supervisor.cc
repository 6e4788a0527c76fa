// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/supervisor.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace runelgw {

bool notifySupervisor(const std::string& address, const std::string& state) {
  sockaddr_un target{};
  if (address.size() < 2 || address.size() >= sizeof target.sun_path ||
      (address[0] != '/' && address[0] != '@')) {
    errno = EINVAL;
    return false;
  }
  target.sun_family = AF_UNIX;
  std::memcpy(target.sun_path, address.data(), address.size());
  if (address[0] == '@') {
    target.sun_path[0] = '\0';
  }
  const zell::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
  return socket.valid() && ::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL,
                                    reinterpret_cast<const sockaddr*>(&target), length) >= 0;
}

std::uint64_t raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return 0;
  }
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : before;
}

std::uint64_t devicesFor(std::uint64_t descriptors, std::uint64_t clients) {
  constexpr std::uint64_t kOwn = 64;  // listeners, the database, the spool, the event loops
  return descriptors > clients + kOwn ? descriptors - clients - kOwn : 0;
}

}  // namespace runelgw
