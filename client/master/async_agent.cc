// SPDX-License-Identifier: Apache-2.0
#include <runel/agent.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "client/io/connector.h"
#include "client/master/clause.h"
#include "protocol/clause_buffer.h"

namespace runel {
inline namespace v1 {
namespace {

constexpr std::size_t kAgentReadSize = 16384;
constexpr std::size_t kLongestAgentClause = 1048576;

}  // namespace

struct AsyncAgent::Data {
  Data(Loop& loop, const Address& address, Milliseconds connectTimeout, Handlers handlers);
  ~Data();

  void connected(zell::UniqueFd fd);
  void watch();
  void ready(std::uint32_t events);
  void receive();
  bool cut();
  void flush();
  void end(const Error& error);

  Loop& loop;
  // Shared, so that a handler that destroys the agent lives until it returns.
  std::shared_ptr<const Handlers> handlers;
  Connector connector;
  zell::UniqueFd socket;
  zell::ClauseBuffer heard;
  std::string out;
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);  // empty after the end
};

AsyncAgent::Data::Data(Loop& loopOf, const Address& address, Milliseconds connectTimeout,
                       Handlers handlersOf)
    : loop(loopOf),
      handlers(std::make_shared<const Handlers>(std::move(handlersOf))),
      connector(loopOf, address, DeviceOptions().setConnectTimeout(connectTimeout),
                [this](zell::UniqueFd fd, std::optional<Error> error) {
                  if (error) {
                    end(*error);
                  } else {
                    connected(std::move(fd));
                  }
                }) {}

AsyncAgent::Data::~Data() {
  if (socket.valid()) {
    loop.forget(socket.get());
  }
}

void AsyncAgent::Data::connected(zell::UniqueFd fd) {
  socket = std::move(fd);
  if (!loop.watch(socket.get(), EPOLLIN, [this](std::uint32_t events) { ready(events); })) {
    end(Error(Kind::link, Cause::connect, systemText(errno), errno));
    return;
  }
  watch();
  const auto held = handlers;
  if (held->connected) {
    held->connected();
  }
}

void AsyncAgent::Data::watch() {
  if (socket.valid()) {
    loop.change(socket.get(), out.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
  }
}

void AsyncAgent::Data::ready(std::uint32_t events) {
  const std::weak_ptr<bool> open = alive;
  const auto held = handlers;
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
    receive();
  }
  if (!open.expired() && (events & EPOLLOUT) != 0) {
    flush();
  }
  if (!open.expired() && held->progress) {
    held->progress();
  }
}

void AsyncAgent::Data::receive() {
  char bytes[kAgentReadSize];
  const ssize_t got = recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    const int number = got < 0 ? errno : 0;
    end(Error(Kind::link, Cause::closed,
              number != 0 ? systemText(number) : "the device closed the connection", number));
    return;
  }
  heard.append(std::string_view(bytes, static_cast<std::size_t>(got)));
  if (cut() && heard.size() > kLongestAgentClause) {
    end(Error(Kind::link, Cause::protocol, "malformed answer: not a clause"));
  }
}

// Returns false when a handler has ended or destroyed the agent.
bool AsyncAgent::Data::cut() {
  const std::weak_ptr<bool> open = alive;
  const auto held = handlers;
  std::string clause;
  while (!open.expired() && heard.next(clause) == zell::ClauseBuffer::Next::cut) {
    held->clause(clause);
  }
  return !open.expired();
}

// An error of the socket is reported by the next read.
void AsyncAgent::Data::flush() {
  const ssize_t taken = ::send(socket.get(), out.data(), out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken > 0) {
    out.erase(0, static_cast<std::size_t>(taken));
  }
  watch();
}

void AsyncAgent::Data::end(const Error& error) {
  alive.reset();
  if (socket.valid()) {
    loop.forget(socket.get());
    socket.reset();
  }
  const auto held = handlers;
  held->end(error);
}

AsyncAgent::AsyncAgent(Loop& loop, const Address& address, Milliseconds connectTimeout,
                       Handlers handlers)
    : data_(std::make_unique<Data>(loop, address, connectTimeout, std::move(handlers))) {}

AsyncAgent::~AsyncAgent() = default;

Result<void> AsyncAgent::send(const std::string& clause) {
  const Result<std::string> line = clauseLine(clause);
  if (!line) {
    return line.error();
  }
  sendRaw(*line);
  return {};
}

void AsyncAgent::sendRaw(const std::string& bytes) {
  if (data_->alive) {
    data_->out += bytes;
    data_->watch();
  }
}

std::size_t AsyncAgent::queued() const {
  return data_->out.size();
}

}  // namespace v1
}  // namespace runel
