// SPDX-License-Identifier: Apache-2.0
// A local agent that sends the clauses of an input.
#ifndef RUNELCTL_CONTROL_INPUT_AGENT_H_
#define RUNELCTL_CONTROL_INPUT_AGENT_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <runel/address.h>
#include <runel/agent.h>
#include <runel/loop.h>

#include "output/error.h"
#include "protocol/clause_buffer.h"

namespace runelctl {

/// Sends the clauses that it reads and reports the received ones.
class InputAgent {
 public:
  struct Options {
    runel::Address target;
    runel::Milliseconds connect{10000};
    /// The idle time after the end of the input before `end` is called. The daemon connects to the
    /// master only after the first clause, so answers may arrive late.
    runel::Milliseconds linger{2000};
    /// Send the input unchecked, even if it stops the daemon.
    bool raw = false;
  };
  struct Events {
    std::function<void(const std::string& clause)> clause;
    /// The agent has ended, with an error or after the end of the input.
    std::function<void(std::optional<Error> error)> end;
  };

  /// Reads from @p input. The caller keeps its ownership.
  InputAgent(runel::Loop& loop, int input, Options options, Events events);
  ~InputAgent();
  InputAgent(const InputAgent&) = delete;
  InputAgent& operator=(const InputAgent&) = delete;

 private:
  void progress();
  void readInput();
  void take(const std::string& bytes);
  void inputEnded();
  void lingerOn();
  void disconnected(const runel::Error& error);
  void end(std::optional<Error> error);

  runel::Loop& loop_;
  const int input_;
  const Options options_;
  Events events_;
  zell::ClauseBuffer typed_;
  bool inputOver_ = false;
  bool inputWatched_ = false;
  runel::Timer pause_;
  std::unique_ptr<runel::AsyncAgent> agent_;  // empty after the end
};

}  // namespace runelctl

#endif  // RUNELCTL_CONTROL_INPUT_AGENT_H_
