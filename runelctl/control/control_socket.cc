// SPDX-License-Identifier: Apache-2.0
#include "control/control_socket.h"

#include <cerrno>
#include <cstddef>
#include <utility>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <runel/records.h>

#include "client/core/paths.h"
#include "client/io/local_peer.h"
#include "output/error.h"

namespace runelctl {
namespace {

// Many runelctl processes may connect at the same time, one for each device.
constexpr int kControlBacklog = 4096;
constexpr int kCallsAtOnce = 64;
constexpr std::size_t kLongestLine = 1024;
constexpr runel::Milliseconds kLineTime{30000};
constexpr runel::Milliseconds kSendTime{30000};

zell::UniqueFd newSocket() {
  return zell::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

const sockaddr* generic(const sockaddr_un& address) {
  // The generic address type of the socket calls.
  return reinterpret_cast<const sockaddr*>(&address);
}

bool answers(const sockaddr_un& address) {
  const zell::UniqueFd probe = newSocket();
  return connect(probe.get(), generic(address), sizeof address) == 0 || errno == EAGAIN;
}

// Sets the mode with umask: between bind and a chmod, other users could open the socket.
bool bindPrivately(int socket, const sockaddr_un& address) {
  const mode_t before = umask(0177);
  const bool bound = bind(socket, generic(address), sizeof address) == 0;
  umask(before);
  return bound;
}

// Opens @p directory and creates it if necessary. Returns no descriptor and sets errno if other
// users can create files in it, or if it is a symbolic link: another user may have created the
// link, and its target may be any directory of this user.
zell::UniqueFd openPrivately(const std::string& directory) {
  (void)mkdir(directory.c_str(), 0700);  // it may exist
  zell::UniqueFd opened(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat about {};
  if (!opened.valid() || fstat(opened.get(), &about) != 0) {
    return {};
  }
  const bool owned = about.st_uid == geteuid() || about.st_uid == 0;
  const bool shared = (about.st_mode & 022U) != 0 && (about.st_mode & S_ISVTX) == 0;
  errno = EPERM;
  return owned && !shared ? std::move(opened) : zell::UniqueFd();
}

}  // namespace

ControlSocket::~ControlSocket() {
  while (!callers_.empty()) {
    drop(callers_.begin()->first);
  }
  if (listener_.valid()) {
    loop_.forget(listener_.get());
    // A stale socket would be replaced by the next master.
    (void)unlinkat(directory_.get(), runel::baseName(path_).c_str(), 0);
  }
}

std::string ControlSocket::open(const std::string& path) {
  if (path.size() >= sizeof sockaddr_un::sun_path) {
    return path + ": " + runel::systemText(ENAMETOOLONG);
  }
  const std::string name = runel::baseName(path);
  zell::UniqueFd directory = openPrivately(runel::directoryOf(path));
  if (!directory.valid()) {
    return runel::directoryOf(path) +
           ": not a private directory for the control socket: " + runel::systemText(errno);
  }
  // The directory may be replaced after the check. Its descriptor still names the same one.
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string where = "/proc/self/fd/" + std::to_string(directory.get()) + "/" + name;
  if (where.size() >= sizeof address.sun_path) {
    return path + ": " + runel::systemText(ENAMETOOLONG);
  }
  where.copy(address.sun_path, where.size());
  if (answers(address)) {
    return path + ": another master is already running";
  }
  (void)unlinkat(directory.get(), name.c_str(), 0);  // if it cannot be removed, bind fails
  zell::UniqueFd listener = newSocket();
  if (!listener.valid() || !bindPrivately(listener.get(), address) ||
      listen(listener.get(), kControlBacklog) != 0 ||
      !loop_.watch(listener.get(), EPOLLIN, [this](std::uint32_t) { accept(); })) {
    return path + ": " + runel::systemText(errno);
  }
  listener_ = std::move(listener);
  directory_ = std::move(directory);
  path_ = path;
  return "";
}

void ControlSocket::accept() {
  for (int i = 0; i < kCallsAtOnce; ++i) {
    zell::UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.valid()) {
      return;  // no pending connection, or no free descriptor: they stay in the backlog
    }
    if (runel::peerIsUs(socket.get())) {
      keep(std::move(socket), EPOLLIN, kLineTime, "");
    } else {
      sendAndClose(std::move(socket), "the master belongs to another user\n");
    }
  }
}

void ControlSocket::keep(zell::UniqueFd socket, std::uint32_t events, runel::Milliseconds limit,
                         std::string text) {
  const int fd = socket.get();
  const auto ready = [this, fd](std::uint32_t what) {
    if ((what & EPOLLOUT) != 0) {
      sendRest(fd);
    } else {
      readLine(fd);
    }
  };
  if (loop_.watch(fd, events, ready)) {
    callers_[fd] = {std::move(socket), std::move(text),
                    loop_.after(limit, [this, fd] { drop(fd); })};
  }
}

// Byte by byte: the data after the line belongs to the attachment.
void ControlSocket::readLine(int fd) {
  std::string& line = callers_.at(fd).text;
  char byte = 0;
  ssize_t got = recv(fd, &byte, 1, MSG_DONTWAIT);
  while (got == 1 && byte != '\n' && line.size() < kLongestLine) {
    line += byte;
    got = recv(fd, &byte, 1, MSG_DONTWAIT);
  }
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  const bool whole = got == 1 && byte == '\n';
  const std::string asked = std::move(line);
  zell::UniqueFd socket = std::move(callers_.at(fd).socket);
  drop(fd);
  if (whole) {
    asked_(asked, std::move(socket));
  }
}

void ControlSocket::sendAndClose(zell::UniqueFd socket, std::string text) {
  const int fd = socket.get();
  keep(std::move(socket), EPOLLOUT, kSendTime, std::move(text));
  if (callers_.count(fd) != 0) {
    sendRest(fd);
  }
}

void ControlSocket::sendRest(int fd) {
  std::string& text = callers_.at(fd).text;
  const ssize_t taken = send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken >= 0) {
    text.erase(0, static_cast<std::size_t>(taken));
  }
  if (text.empty() || (taken < 0 && errno != EAGAIN && errno != EINTR)) {
    drop(fd);
  }
}

void ControlSocket::drop(int fd) {
  const auto caller = callers_.find(fd);
  loop_.forget(fd);
  loop_.cancel(caller->second.limit);
  callers_.erase(caller);
}

}  // namespace runelctl
