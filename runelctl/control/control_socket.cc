// SPDX-License-Identifier: Apache-2.0
#include "control/control_socket.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

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

// Creates the directory of @p path if necessary. Returns false with errno if other users can create
// files in it.
bool ownDirectory(const std::string& path) {
  const std::string directory = runel::directoryOf(path);
  (void)mkdir(directory.c_str(), 0700);  // it may exist
  struct stat about {};
  if (stat(directory.c_str(), &about) != 0) {
    return false;
  }
  errno = EPERM;
  return (about.st_uid == geteuid() || about.st_uid == 0) &&
         ((about.st_mode & 022U) == 0 || (about.st_mode & S_ISVTX) != 0);
}

}  // namespace

ControlSocket::~ControlSocket() {
  while (!callers_.empty()) {
    drop(callers_.begin()->first);
  }
  if (listener_.valid()) {
    loop_.forget(listener_.get());
    (void)unlink(path_.c_str());  // a stale socket would be replaced by the next master
  }
}

std::string ControlSocket::open(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return path + ": " + runel::systemText(ENAMETOOLONG);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (!ownDirectory(path)) {
    return runel::directoryOf(path) +
           ": not a private directory for the control socket: " + runel::systemText(errno);
  }
  if (answers(address)) {
    return path + ": another master is already running";
  }
  (void)unlink(path.c_str());  // if it cannot be removed, bind fails
  zell::UniqueFd listener = newSocket();
  if (!bindPrivately(listener.get(), address) || listen(listener.get(), kControlBacklog) != 0 ||
      !loop_.watch(listener.get(), EPOLLIN, [this](std::uint32_t) { accept(); })) {
    return path + ": " + runel::systemText(errno);
  }
  listener_ = std::move(listener);
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
