// SPDX-License-Identifier: Apache-2.0
#include "client/master/bridge.h"

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <runel/error.h>

#include "client/io/connector.h"

namespace runel {
namespace {

constexpr std::size_t kReadSize = 16384;
// A clause of an agent has one or two lines. Limits the memory for a clause that never ends.
constexpr std::size_t kLongestClause = 1048576;
// A peer that is gone is detected within 6 s.
constexpr int kProbeSeconds = 1;
constexpr int kProbeCount = 5;
constexpr Milliseconds kProbeTime{10000};

void probeOften(int socket) {
  const std::pair<int, int> options[] = {
      {TCP_KEEPIDLE, kProbeSeconds}, {TCP_KEEPINTVL, kProbeSeconds}, {TCP_KEEPCNT, kProbeCount}};
  for (const auto& [option, value] : options) {
    (void)setsockopt(socket, IPPROTO_TCP, option, &value, sizeof value);  // it is a TCP socket
  }
}

}  // namespace

Bridge::Bridge(Loop& loop, zell::UniqueFd socket, Events events)
    : loop_(loop), socket_(std::move(socket)), events_(std::move(events)) {
  if (!loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t what) { ready(what); })) {
    loop_.next([end = events_.end, why = systemText(errno)] { end(why); });
    events_.end = nullptr;
  }
}

Bridge::~Bridge() {
  loop_.cancel(probed_);
  loop_.forget(socket_.get());
}

void Bridge::send(const std::string& line) {
  out_ += line;
  watchSocket();
}

void Bridge::watchSocket() {
  loop_.change(socket_.get(), (held_ ? 0U : std::uint32_t{EPOLLIN}) |
                                  (out_.empty() ? 0U : std::uint32_t{EPOLLOUT}));
}

void Bridge::hold() {
  held_ = true;
  watchSocket();
}

void Bridge::release() {
  if (std::exchange(held_, false)) {
    watchSocket();
    cut();
  }
}

// The probes stay frequent for a while only: each costs a packet on the line.
void Bridge::probe() {
  probeOften(socket_.get());
  loop_.cancel(probed_);
  probed_ = loop_.after(kProbeTime, [this] {
    probed_ = Timer();
    setTaskOptions(socket_.get());
  });
}

zell::UniqueFd Bridge::take() {
  loop_.forget(socket_.get());
  events_ = Events();
  setTaskOptions(socket_.get());
  return std::move(socket_);
}

void Bridge::ready(std::uint32_t events) {
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
    receive();
  }
  if (socket_.valid() && (events & EPOLLOUT) != 0) {
    flush();
  }
}

// An error of the socket is reported by the next read.
void Bridge::flush() {
  const ssize_t taken =
      ::send(socket_.get(), out_.data(), out_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken > 0) {
    out_.erase(0, static_cast<std::size_t>(taken));
  }
  if (out_.empty()) {
    watchSocket();
  }
}

void Bridge::receive() {
  char bytes[kReadSize];
  const ssize_t got = recv(socket_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    const std::string why = got < 0 ? systemText(errno) : "the device closed the connection";
    release();
    end(why);
    return;
  }
  bytes_ += static_cast<std::uint64_t>(got);
  if (!std::exchange(spoke_, true)) {
    events_.spoke();
  }
  buffer_.append(std::string_view(bytes, static_cast<std::size_t>(got)));
  if (!held_) {
    cut();
  }
}

void Bridge::cut() {
  std::string clause;
  zell::ClauseBuffer::Next next = buffer_.next(clause);
  while (next == zell::ClauseBuffer::Next::cut) {
    ++clauses_;
    events_.clause(clause);
    next = buffer_.next(clause);
  }
  if (next == zell::ClauseBuffer::Next::sentinel || next == zell::ClauseBuffer::Next::notOpening) {
    end("sent data that is not a clause");
  } else if (buffer_.size() > kLongestClause) {
    end("sent a clause that exceeds 1 MiB");
  }
}

void Bridge::end(const std::string& why) {
  loop_.cancel(probed_);
  loop_.forget(socket_.get());
  socket_.reset();
  const auto ended = std::move(events_.end);
  events_ = Events();
  if (ended) {
    ended(why);
  }
}

}  // namespace runel
