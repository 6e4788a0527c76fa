// SPDX-License-Identifier: Apache-2.0
#include "device.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <zell/slave_task.h>

namespace runel::bench {
namespace {

constexpr char kKernel[] = "6.1.0-simulated\n";
constexpr char kFreeBlocks[] = "1048576";
constexpr char kStat[] =
    "dev=1 ino=2 mode=0040755 nlink=2 uid=0 gid=0 rdev=0 size=4096 blksize=4096 blocks=8 "
    "atime=1.000000000 mtime=1.000000000 ctime=1.000000000\n";

// The text of the answer to the task @p name, for the tasks that have one.
std::string textOf(const std::string& name, const std::string& hostid) {
  if (name == "hostid") {
    return hostid;
  }
  if (name == "devicetype") {
    return "controller";
  }
  if (name == "freeblocks") {
    return kFreeBlocks;
  }
  if (name == "stat") {
    return kStat;
  }
  if (name == "read") {
    return kKernel;
  }
  return name == "exec" ? "output of " + hostid + "\n" : "";
}

}  // namespace

Device::Device(Simulation& simulation, in_addr address, std::string hostid, Milliseconds delay)
    : simulation_(simulation), address_(address), hostid_(std::move(hostid)), delay_(delay) {}

Device::~Device() {
  simulation_.loop.cancel(again_);
  if (bridge_.valid()) {
    simulation_.loop.forget(bridge_.get());
  }
}

// Loopback connects at once or fails at once: a full backlog is not an error but a wait.
zell::UniqueFd Device::connectedSocket() const {
  zell::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_addr = address_;
  if (!socket.valid() ||
      setsockopt(socket.get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on) != 0 ||
      bind(socket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
    std::perror("bench_fleet: socket");
    std::exit(2);
  }
  const auto* const master = reinterpret_cast<const sockaddr*>(&simulation_.master);
  if (::connect(socket.get(), master, sizeof simulation_.master) != 0 && errno != EINPROGRESS) {
    socket.reset();
  }
  return socket;
}

void Device::connect() {
  away_ = false;
  zell::UniqueFd socket = connectedSocket();
  if (!socket.valid()) {
    tryAgain();
    return;
  }
  ++simulation_.connects;
  ++simulation_.connected;
  channel_ = std::make_unique<Channel>(
      simulation_.loop, std::move(socket),
      Channel::Handlers{[this](std::string&& payload) { receive(std::move(payload)); },
                        [this](const Error&) { lost(); }, nullptr});
}

void Device::tryAgain() {
  simulation_.loop.cancel(again_);
  again_ = simulation_.loop.after(simulation_.reconnect, [this] { connect(); });
}

void Device::receive(std::string&& payload) {
  simulation_.bytesReceived += payload.size();
  if (delay_.count() == 0) {
    answer(payload);
    return;
  }
  simulation_.loop.after(delay_, [this, alive = std::weak_ptr<bool>(alive_), payload] {
    if (!alive.expired() && channel_) {
      answer(payload);
    }
  });
}

void Device::answer(const std::string& request) {
  zell::SlaveTask task;
  const bool known = task.parse(request) && !task.args().empty();
  const std::string name = known ? task.args()[0] : "";
  if (name == "restart") {
    drop(false);
    return;
  }
  using State = zell::WatchProcessState_t;
  const zell::SlaveTask reply(
      {}, 0, textOf(name, hostid_), known ? zell::SlaveStatus::success : zell::SlaveStatus::error,
      name == "exec" ? State::exited : State::none, known ? 0 : 1, known ? 0 : EINVAL, 0);
  const zell::SlaveTask::Parts parts = reply.parts();
  channel_->send(parts.head + std::string(parts.output) + parts.tail);
  ++simulation_.answered;
}

// The channel is still on the stack.
void Device::lost() {
  --simulation_.connected;
  simulation_.loop.next([channel = std::shared_ptr<Channel>(std::move(channel_))] {});
  if (bridge_.valid()) {
    simulation_.loop.forget(bridge_.get());
    bridge_.reset();
  }
  if (!away_) {
    tryAgain();
  }
}

void Device::drop(bool silent) {
  away_ = silent;
  simulation_.loop.cancel(again_);
  if (channel_) {
    lost();
  }
}

void Device::sendClause(const std::string& clause) {
  if (!channel_) {
    return;
  }
  if (!bridge_.valid()) {
    bridge_ = connectedSocket();
    if (!bridge_.valid()) {
      return;
    }
    const int fd = bridge_.get();
    (void)simulation_.loop.watch(fd, EPOLLIN, [this, fd](std::uint32_t) {
      char bytes[4096];
      const ssize_t got = recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
      if (got > 0 && std::memchr(bytes, 1, static_cast<std::size_t>(got)) != nullptr) {
        ++simulation_.bridgeFrames;  // a real daemon would stop
      } else if (got == 0) {
        simulation_.loop.forget(fd);
        bridge_.reset();
      }
    });
  }
  // A connection that is not complete takes nothing: the caller repeats the clause.
  (void)send(bridge_.get(), clause.data(), clause.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace runel::bench
