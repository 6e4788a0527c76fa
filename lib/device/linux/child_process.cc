// SPDX-License-Identifier: Apache-2.0
#include "device/linux/child_process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include <sys/wait.h>
#include <unistd.h>

#include "base/system.h"
#include "device/linux/spawn_settings.h"

namespace zell {
namespace {

// Half of the second within which an ended program is reaped. The period of the loop is added to
// it.
constexpr std::chrono::milliseconds kReapInterval(500);

struct Forgotten {
  std::list<pid_t> pids;
  std::chrono::nanoseconds due{0};  // monotonic time of the next check
};

Forgotten& forgotten() {
  static Forgotten programs;
  return programs;
}

// A process that inherited SIGCHLD as ignored could not wait for its programs.
void keepEndedChildren() {
  struct sigaction action {};
  if (sigaction(SIGCHLD, nullptr, &action) == 0 &&
      (action.sa_handler == SIG_IGN || (action.sa_flags & SA_NOCLDWAIT) != 0)) {
    action = {};
    action.sa_handler = SIG_DFL;
    (void)sigaction(SIGCHLD, &action, nullptr);  // the arguments are valid
  }
}

// The arguments in the form that exec(2) expects. exec(2) does not change the strings.
std::vector<char*> pointersTo(const std::vector<std::string>& argv) {
  std::vector<char*> pointers;
  pointers.reserve(argv.size() + 1);
  for (const std::string& argument : argv) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

// waitpid(2), restarted after a signal.
pid_t waitFor(pid_t pid, int* status, int options) {
  pid_t result = 0;
  do {
    result = waitpid(pid, status, options);
  } while (result < 0 && errno == EINTR);
  return result;
}

// Whether any child, forgotten or not, has ended and is not reaped yet, or no child exists.
bool someChildHasEnded() {
  siginfo_t info{};
  const int result = waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
  return result != 0 || info.si_pid != 0;
}

}  // namespace

int ChildProcess::start(const std::vector<std::string>& argv, int output) {
  SpawnSettings settings(output);
  if (settings.error() != 0) {
    return settings.error();
  }
  const std::vector<char*> pointers = pointersTo(argv);
  std::list<pid_t> started(1);
  keepEndedChildren();
  const int error = posix_spawnp(&started.front(), pointers.front(), settings.actions(),
                                 settings.attributes(), pointers.data(), environ);
  if (error == 0) {
    pid_.swap(started);
  }
  return error;
}

bool ChildProcess::hasEnded() const {
  siginfo_t info{};
  const int result = waitid(P_PID, static_cast<id_t>(pid()), &info, WEXITED | WNOHANG | WNOWAIT);
  return result != 0 || info.si_pid != 0;
}

void ChildProcess::signal(int signal) const {
  (void)::kill(-pid(), signal);  // fails when the group is empty
  if (getpgid(pid()) != pid()) {
    (void)::kill(pid(), signal);  // it moved to another group
  }
}

std::optional<int> ChildProcess::reap() {
  int status = 0;
  const bool known = waitFor(pid(), &status, 0) > 0;
  pid_.clear();
  return known ? std::optional<int>(status) : std::nullopt;
}

void ChildProcess::forget() noexcept {
  forgotten().pids.splice(forgotten().pids.end(), pid_);
}

void ChildProcess::reapForgotten() noexcept {
  Forgotten& programs = forgotten();
  if (programs.pids.empty()) {
    return;
  }
  const std::chrono::nanoseconds now = sys::monotonicTickTime();
  if (now < programs.due) {
    return;
  }
  programs.due = now + kReapInterval;
  if (someChildHasEnded()) {
    // 0 means that it still runs; on an error there is nothing to reap.
    programs.pids.remove_if([](pid_t pid) { return waitFor(pid, nullptr, WNOHANG) != 0; });
  }
}

}  // namespace zell
