// SPDX-License-Identifier: Apache-2.0
#include "control/input_agent.h"

#include <cerrno>
#include <utility>

#include <sys/epoll.h>
#include <unistd.h>

namespace runelctl {
namespace {

constexpr std::size_t kInputReadSize = 16384;
constexpr std::size_t kMostInputQueued = 262144;
constexpr std::size_t kLongestInputClause = 1048576;

Error inputError(const std::string& what, const std::string& hint) {
  return {Fault::local, "standard input: " + what, hint};
}

}  // namespace

InputAgent::InputAgent(runel::Loop& loop, int input, Options options, Events events)
    : loop_(loop), input_(input), options_(std::move(options)), events_(std::move(events)) {
  runel::AsyncAgent::Handlers handlers;
  handlers.clause = events_.clause;
  handlers.end = [this](const runel::Error& error) { disconnected(error); };
  handlers.connected = [this] { readInput(); };
  handlers.progress = [this] { progress(); };
  agent_ = std::make_unique<runel::AsyncAgent>(loop_, options_.target, options_.connect,
                                               std::move(handlers));
}

InputAgent::~InputAgent() {
  loop_.cancel(pause_);
  loop_.forget(input_);
}

void InputAgent::progress() {
  if (inputOver_) {
    lingerOn();
  } else if (!inputWatched_) {
    readInput();
  }
}

// epoll does not support regular files. They are read as fast as the data is sent.
void InputAgent::readInput() {
  loop_.cancel(pause_);
  if (agent_->queued() > kMostInputQueued) {
    loop_.forget(input_);  // until the daemon has read some of it
    inputWatched_ = false;
    return;
  }
  if (!inputWatched_ && loop_.watch(input_, EPOLLIN, [this](std::uint32_t) { readInput(); })) {
    inputWatched_ = true;
    return;
  }
  std::string bytes(kInputReadSize, '\0');
  const ssize_t got = ::read(input_, bytes.data(), bytes.size());
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got < 0) {
    end(inputError(runel::systemText(errno), ""));
    return;
  }
  if (got == 0) {
    inputEnded();
    return;
  }
  bytes.resize(static_cast<std::size_t>(got));
  take(bytes);
  if (!inputWatched_ && agent_) {
    pause_ = loop_.after(runel::Milliseconds(0), [this] { readInput(); });
  }
}

void InputAgent::take(const std::string& bytes) {
  if (options_.raw) {
    agent_->sendRaw(bytes);
    return;
  }
  typed_.append(bytes);
  std::string clause;
  zell::ClauseBuffer::Next next = typed_.next(clause);
  while (next == zell::ClauseBuffer::Next::cut) {
    agent_->sendRaw(clause + "\r\n");
    next = typed_.next(clause);
  }
  if (next == zell::ClauseBuffer::Next::sentinel) {
    end(inputError("byte 0x01 or 0x02 would stop the daemon", "--raw sends it anyway"));
  } else if (next == zell::ClauseBuffer::Next::notOpening) {
    end(inputError("input that does not begin with '<' would block the daemon's relay",
                   "--raw sends it anyway"));
  } else if (typed_.size() > kLongestInputClause) {
    end(inputError("a clause exceeds 1 MiB", ""));
  }
}

void InputAgent::inputEnded() {
  inputOver_ = true;
  loop_.forget(input_);
  if (typed_.first(1).empty()) {
    lingerOn();
  } else {
    end(inputError("the last clause is incomplete: its closing tag is missing",
                   "tags with attributes must end in '/>'"));
  }
}

// Ends the agent after an idle time.
void InputAgent::lingerOn() {
  loop_.cancel(pause_);
  if (agent_->queued() == 0) {
    pause_ = loop_.after(options_.linger, [this] { end(std::nullopt); });
  }
}

void InputAgent::disconnected(const runel::Error& error) {
  Error told = error;
  if (error.cause() == runel::Cause::closed) {
    told.hint = "the daemon closes it when its connection to the master ends";
  }
  end(std::move(told));
}

void InputAgent::end(std::optional<Error> error) {
  loop_.cancel(pause_);
  loop_.forget(input_);
  agent_.reset();
  events_.end(std::move(error));
}

}  // namespace runelctl
