// SPDX-License-Identifier: Apache-2.0
#include "client/master/agent.h"

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace runel {
namespace {

constexpr std::size_t kAgentReadSize = 16384;
constexpr std::size_t kMostClausesQueued = 262144;
constexpr std::size_t kLongestAgentClause = 1048576;

Error inputError(const std::string& what) {
  return {Kind::local, Cause::other, "standard input: " + what};
}

}  // namespace

Agent::Agent(Loop& loop, int input, Options options, Events events)
    : loop_(loop), input_(input), options_(std::move(options)), events_(std::move(events)) {
  connector_ =
      std::make_unique<Connector>(loop_, options_.target, "", options_.connect,
                                  [this](zell::UniqueFd socket, std::optional<Error> error) {
                                    if (error) {
                                      end(std::move(error));
                                    } else {
                                      connected(std::move(socket));
                                    }
                                  });
}

Agent::~Agent() {
  loop_.cancel(pause_);
  loop_.forget(input_);
  if (socket_.valid()) {
    loop_.forget(socket_.get());
  }
}

void Agent::connected(zell::UniqueFd socket) {
  socket_ = std::move(socket);
  if (!loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t events) { ready(events); })) {
    end(Error{Kind::link, Cause::connect, systemText(errno), errno});
    return;
  }
  readInput();
}

// epoll does not support regular files. They are read as fast as the data is sent.
void Agent::readInput() {
  loop_.cancel(pause_);
  if (out_.size() > kMostClausesQueued) {
    loop_.forget(input_);  // until the daemon has read some of it
    inputWatched_ = false;
    return;
  }
  if (!inputWatched_ && loop_.watch(input_, EPOLLIN, [this](std::uint32_t) { readInput(); })) {
    inputWatched_ = true;
    return;
  }
  std::string bytes(kAgentReadSize, '\0');
  const ssize_t got = ::read(input_, bytes.data(), bytes.size());
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    inputEnded();
    return;
  }
  bytes.resize(static_cast<std::size_t>(got));
  take(std::move(bytes));
  if (!inputWatched_ && !over_) {
    pause_ = loop_.after(Milliseconds(0), [this] { readInput(); });
  }
}

void Agent::take(std::string bytes) {
  if (options_.raw) {
    out_ += bytes;
    watchSocket();
    return;
  }
  typed_.append(bytes);
  std::string clause;
  zell::ClauseBuffer::Next next = typed_.next(clause);
  while (next == zell::ClauseBuffer::Next::cut) {
    out_ += clause + "\r\n";
    next = typed_.next(clause);
  }
  if (next == zell::ClauseBuffer::Next::sentinel) {
    end(inputError("byte 0x01 or 0x02 would stop the daemon"), "--raw sends it anyway");
  } else if (next == zell::ClauseBuffer::Next::notOpening) {
    end(inputError("input that does not begin with '<' would block the daemon's relay"),
        "--raw sends it anyway");
  } else if (typed_.size() > kLongestAgentClause) {
    end(inputError("a clause exceeds 1 MiB"));
  } else {
    watchSocket();
  }
}

void Agent::inputEnded() {
  inputOver_ = true;
  loop_.forget(input_);
  if (typed_.first(1).empty()) {
    waitOn();
  } else {
    end(inputError("the last clause is incomplete: its closing tag is missing"),
        "tags with attributes must end in '/>'");
  }
}

void Agent::watchSocket() {
  if (!over_) {
    loop_.change(socket_.get(), out_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
  }
}

void Agent::ready(std::uint32_t events) {
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
    receive();
  }
  if (!over_ && (events & EPOLLOUT) != 0) {
    flush();
  }
}

void Agent::receive() {
  char bytes[kAgentReadSize];
  const ssize_t got = recv(socket_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    end(Error{Kind::link, Cause::closed,
              got < 0 ? systemText(errno) : "the device closed the connection",
              got < 0 ? errno : 0},
        "the daemon closes it when its connection to the master ends");
    return;
  }
  heard_.append(std::string_view(bytes, static_cast<std::size_t>(got)));
  std::string clause;
  while (heard_.next(clause) == zell::ClauseBuffer::Next::cut) {
    events_.clause(clause);
  }
  if (heard_.size() > kLongestAgentClause) {
    end(Error{Kind::link, Cause::protocol, "malformed answer: not a clause"});
  } else if (inputOver_) {
    waitOn();
  }
}

void Agent::flush() {
  const ssize_t taken = send(socket_.get(), out_.data(), out_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken > 0) {
    out_.erase(0, static_cast<std::size_t>(taken));
  }
  watchSocket();
  if (inputOver_) {
    waitOn();
  } else if (!inputWatched_ && out_.size() <= kMostClausesQueued) {
    readInput();
  }
}

// Ends the agent after an idle time.
void Agent::waitOn() {
  if (over_) {
    return;
  }
  loop_.cancel(pause_);
  if (out_.empty()) {
    pause_ = loop_.after(options_.linger, [this] { end(std::nullopt); });
  }
}

void Agent::end(std::optional<Error> error, const std::string& hint) {
  if (std::exchange(over_, true)) {
    return;
  }
  loop_.cancel(pause_);
  loop_.forget(input_);
  if (socket_.valid()) {
    loop_.forget(socket_.get());
  }
  events_.end(std::move(error), hint);
}

}  // namespace runel
