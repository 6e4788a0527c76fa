// SPDX-License-Identifier: Apache-2.0
#include "cli/signals.h"

#include <utility>

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace runelctl {

Signals::Signals(runel::Loop& loop, std::function<void(int number)> caught)
    : loop_(loop), caught_(std::move(caught)) {
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, SIGINT);
  sigaddset(&wanted, SIGTERM);
  sigaddset(&wanted, SIGHUP);
  sigprocmask(SIG_BLOCK, &wanted, &before_);
  descriptor_.reset(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
  const auto read = [this](std::uint32_t) {
    signalfd_siginfo about{};
    if (::read(descriptor_.get(), &about, sizeof about) == sizeof about) {
      caught_(static_cast<int>(about.ssi_signo));
    }
  };
  if (!descriptor_.valid() || !loop_.watch(descriptor_.get(), EPOLLIN, read)) {
    sigprocmask(SIG_SETMASK, &before_, nullptr);  // the default action of the signals remains
  }
}

Signals::~Signals() {
  loop_.forget(descriptor_.get());
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace runelctl
