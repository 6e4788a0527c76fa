// SPDX-License-Identifier: Apache-2.0
// Delivers signals as events of the loop.
#ifndef RUNELCTL_CLI_SIGNALS_H_
#define RUNELCTL_CLI_SIGNALS_H_

#include <functional>

#include <csignal>

#include <runel/loop.h>

#include "base/unique_fd.h"

namespace runelctl {

/// During its lifetime, SIGINT, SIGTERM and SIGHUP call @p caught from the loop and do not end the
/// process.
class Signals {
 public:
  Signals(runel::Loop& loop, std::function<void(int number)> caught);
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

 private:
  runel::Loop& loop_;
  std::function<void(int)> caught_;
  sigset_t before_{};
  zell::UniqueFd descriptor_;
};

}  // namespace runelctl

#endif  // RUNELCTL_CLI_SIGNALS_H_
