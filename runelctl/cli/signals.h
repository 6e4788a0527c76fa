// SPDX-License-Identifier: Apache-2.0
// Delivers signals as events of the loop.
#ifndef ZELL_RUNELCTL_CLI_SIGNALS_H_
#define ZELL_RUNELCTL_CLI_SIGNALS_H_

#include <functional>

#include <csignal>

#include "base/unique_fd.h"
#include "client/core/loop.h"

namespace zell::ctl {

/// During its lifetime, SIGINT, SIGTERM and SIGHUP call @p caught from the loop and do not end the
/// process.
class Signals {
 public:
  Signals(Loop& loop, std::function<void(int number)> caught);
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

 private:
  Loop& loop_;
  std::function<void(int)> caught_;
  sigset_t before_{};
  UniqueFd descriptor_;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_CLI_SIGNALS_H_
