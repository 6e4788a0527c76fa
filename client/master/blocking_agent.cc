// SPDX-License-Identifier: Apache-2.0
#include <runel/agent.h>

#include <cerrno>
#include <cstddef>
#include <deque>
#include <utility>

#include "client/master/clause.h"
#include "client/master/run_until.h"

namespace runel {
inline namespace v1 {

struct Agent::Data {
  Result<void> connect();
  Result<void> drain();
  Error end();

  std::string address;
  Milliseconds timeout{0};
  Loop loop;
  std::deque<std::string> clauses;
  std::optional<Error> ended;
  bool connected = false;
  std::unique_ptr<AsyncAgent> agent;
};

// Runs until it is connected. After the end of a connection, it makes a new one.
Result<void> Agent::Data::connect() {
  if (agent && !ended) {
    return {};
  }
  const Result<Address> parsed = Address::parse(address);
  if (!parsed) {
    return parsed.error();
  }
  if (parsed->isBehindMaster()) {
    return Error(Kind::local, Cause::other, "an agent connects to the daemon directly");
  }
  connected = false;
  ended.reset();
  AsyncAgent::Handlers handlers;
  handlers.clause = [this](const std::string& clause) { clauses.push_back(clause); };
  handlers.end = [this](const Error& error) { ended = error; };
  handlers.connected = [this] { connected = true; };
  agent = std::make_unique<AsyncAgent>(loop, *parsed, timeout, std::move(handlers));
  (void)runUntil(
      loop, [this] { return connected || ended; }, std::nullopt);
  if (!connected) {
    return end();
  }
  return {};
}

// The connection has ended.
Error Agent::Data::end() {
  agent.reset();
  return *std::exchange(ended, std::nullopt);
}

// Runs until all is sent. Each progress restarts the timeout.
Result<void> Agent::Data::drain() {
  std::size_t left = agent->queued();
  const auto progress = [&] { return ended || agent->queued() < left; };
  while (left > 0 && !ended) {
    if (!runUntil(loop, progress, timeout)) {
      // A part of a clause would be read as the start of the next one.
      agent.reset();
      return Error(Kind::timeout, Cause::silence, "the daemon does not read", ETIMEDOUT)
          .with(Outcome::unknown);
    }
    left = agent->queued();
  }
  if (ended) {
    return end().with(Outcome::unknown);
  }
  return {};
}

Agent::Agent(const std::string& address, Milliseconds timeout) : data_(std::make_unique<Data>()) {
  data_->address = address;
  data_->timeout = timeout;
  data_->loop.setResolver([](const std::string& host, const Loop::Resolved& resolved) {
    resolved(resolveBlocking(host));
  });
}

Agent::~Agent() = default;
Agent::Agent(Agent&& other) noexcept = default;
Agent& Agent::operator=(Agent&& other) noexcept = default;

Result<void> Agent::send(const std::string& clause) {
  const Result<std::string> line = clauseLine(clause);
  if (!line) {
    return line.error();
  }
  data_->loop.step();  // learns of the end of an idle connection
  Result<void> connected = data_->connect();
  if (!connected) {
    return connected;
  }
  data_->agent->sendRaw(*line);
  return data_->drain();
}

Result<std::optional<std::string>> Agent::receive(Milliseconds limit) {
  Data& data = *data_;
  data.loop.step();
  if (data.clauses.empty() && !data.ended) {
    const Result<void> connected = data.connect();
    if (!connected) {
      return connected.error();
    }
    const auto over = [&] { return !data.clauses.empty() || data.ended; };
    (void)runUntil(data.loop, over, limit);
  }
  if (!data.clauses.empty()) {
    std::optional<std::string> clause = std::move(data.clauses.front());
    data.clauses.pop_front();
    return clause;
  }
  if (data.ended) {
    return data.end();
  }
  return std::optional<std::string>();
}

}  // namespace v1
}  // namespace runel
