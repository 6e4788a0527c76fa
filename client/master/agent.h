// SPDX-License-Identifier: Apache-2.0
// A local agent: sends clauses to a daemon and receives those of its master.
#ifndef RUNEL_MASTER_AGENT_H_
#define RUNEL_MASTER_AGENT_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <runel/address.h>
#include <runel/error.h>
#include <runel/loop.h>

#include "base/unique_fd.h"
#include "client/io/connector.h"
#include "protocol/clause_buffer.h"

namespace runel {

/// Sends the clauses that it reads and reports the received ones.
class Agent {
 public:
  struct Options {
    Address target;
    Milliseconds connect{10000};
    /// The idle time after the end of the input before `end` is called. The daemon connects to the
    /// master only after the first clause, so answers may arrive late.
    Milliseconds linger{2000};
    /// Send the input unchecked, even if it stops the daemon.
    bool raw = false;
  };
  struct Events {
    std::function<void(const std::string& clause)> clause;
    /// The agent has ended, with an error or after the end of the input.
    std::function<void(std::optional<Error> error, const std::string& hint)> end;
  };

  /// Reads from @p input. The caller keeps its ownership.
  Agent(Loop& loop, int input, Options options, Events events);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

 private:
  void connected(zell::UniqueFd socket);
  void readInput();
  void take(std::string bytes);
  void inputEnded();
  void watchSocket();
  void ready(std::uint32_t events);
  void receive();
  void flush();
  void waitOn();
  void end(std::optional<Error> error, const std::string& hint = "");

  Loop& loop_;
  const int input_;
  const Options options_;
  Events events_;
  std::unique_ptr<Connector> connector_;
  zell::UniqueFd socket_;
  zell::ClauseBuffer typed_;
  zell::ClauseBuffer heard_;
  std::string out_;
  bool inputOver_ = false;
  bool inputWatched_ = false;
  bool over_ = false;
  Timer pause_;
};

}  // namespace runel

#endif  // RUNEL_MASTER_AGENT_H_
