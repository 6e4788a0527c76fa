// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/control_server.h"

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <runel/error.h>

#include "client/io/local_peer.h"

namespace runelgw {
namespace {

constexpr std::size_t kLongestRequest = 65536;
constexpr std::size_t kMostCallers = 16;
constexpr int kBacklog = 16;
// A caller that restores a backup copies it between two requests.
constexpr runel::Milliseconds kIdleLimit = std::chrono::minutes(30);

unsigned userOf(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : ~0U;
}

// Sends some of @p text, with a copy of @p file if it is valid.
ssize_t sendSome(int socket, const std::string& text, const zell::UniqueFd& file) {
  iovec part{const_cast<char*>(text.data()), text.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (file.valid()) {
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = file.get();
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  }
  return ::sendmsg(socket, &message, MSG_NOSIGNAL);
}

}  // namespace

struct ControlServer::Caller {
  zell::UniqueFd socket;
  unsigned user = 0;
  std::string input;
  std::string output;
  zell::UniqueFd file;
  bool waiting = false;  // for the answer to its request
  runel::Timer limit;
};

ControlServer::ControlServer(runel::Loop& loop, Asked asked)
    : loop_(loop), asked_(std::move(asked)), alive_(std::make_shared<bool>(true)) {}

ControlServer::~ControlServer() {
  *alive_ = false;
  while (!callers_.empty()) {
    const std::shared_ptr<Caller> caller = callers_.begin()->second;
    drop(caller);
  }
  if (listener_.valid()) {
    loop_.forget(listener_.get());
    (void)::unlink(path_.c_str());
  }
}

runel::Result<void> ControlServer::open(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) {
    return runel::Error::local(path, ENAMETOOLONG);
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  zell::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
    (void)::unlink(path.c_str());
  }
  // Before bind(), so that no other user can connect at any time.
  if (!socket.valid() || ::fchmod(socket.get(), 0600) != 0 ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(socket.get(), kBacklog) != 0 ||
      !loop_.watch(socket.get(), EPOLLIN, [this](std::uint32_t) { accept(); })) {
    return runel::Error::local(path, errno);
  }
  listener_ = std::move(socket);
  path_ = path;
  return {};
}

void ControlServer::accept() {
  zell::UniqueFd socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket.valid() || callers_.size() >= kMostCallers || !runel::peerIsUs(socket.get())) {
    return;
  }
  auto caller = std::make_shared<Caller>();
  caller->user = userOf(socket.get());
  caller->socket = std::move(socket);
  const int fd = caller->socket.get();
  callers_[fd] = caller;
  const auto ready = [this, caller](std::uint32_t) {
    if (caller->output.empty()) {
      read(caller);
    } else {
      write(caller);
    }
  };
  if (!loop_.watch(fd, EPOLLIN, ready)) {
    callers_.erase(fd);
    return;
  }
  caller->limit = loop_.after(kIdleLimit, [this, caller] { drop(caller); });
}

void ControlServer::read(const std::shared_ptr<Caller>& caller) {
  char bytes[4096];
  const ssize_t count = ::read(caller->socket.get(), bytes, sizeof bytes);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  // A caller must not send before it has its answer.
  if (count <= 0 || caller->waiting ||
      caller->input.size() + static_cast<std::size_t>(count) > kLongestRequest) {
    drop(caller);
    return;
  }
  caller->input.append(bytes, static_cast<std::size_t>(count));
  if (caller->input.back() != '\n') {
    return;
  }
  caller->input.pop_back();
  caller->waiting = true;
  asked_(std::exchange(caller->input, {}), caller->user,
         [this, alive = std::weak_ptr<bool>(alive_), caller](ControlAnswer answered) {
           if (!alive.expired() && caller->socket.valid() && caller->waiting) {
             answer(caller, std::move(answered));
           }
         });
}

void ControlServer::answer(const std::shared_ptr<Caller>& caller, ControlAnswer answer) {
  caller->waiting = false;
  caller->output = std::move(answer.line) + "\n";
  caller->file = std::move(answer.file);
  loop_.change(caller->socket.get(), EPOLLOUT);
}

void ControlServer::write(const std::shared_ptr<Caller>& caller) {
  const ssize_t count = sendSome(caller->socket.get(), caller->output, caller->file);
  if (count < 0) {
    if (errno != EAGAIN && errno != EINTR) {
      drop(caller);
    }
    return;
  }
  caller->file.reset();
  caller->output.erase(0, static_cast<std::size_t>(count));
  if (caller->output.empty()) {
    loop_.change(caller->socket.get(), EPOLLIN);
  }
}

void ControlServer::drop(const std::shared_ptr<Caller>& caller) {
  loop_.forget(caller->socket.get());
  loop_.cancel(caller->limit);
  callers_.erase(caller->socket.get());
  caller->socket.reset();
}

}  // namespace runelgw
