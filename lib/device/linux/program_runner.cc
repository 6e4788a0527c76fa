// SPDX-License-Identifier: Apache-2.0
#include "device/common/program_runner.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <sys/wait.h>

#include "base/unique_fd.h"
#include "device/linux/child_process.h"
#include "device/linux/paths.h"
#include "device/linux/program_output.h"
#include "device/linux/program_watch.h"

namespace zell {
namespace {

using Status = SlaveStatus;

ResultStatus failed(int error) {
  return {Status::failure, WatchProcessState_t::none, 1, error, 0};
}

ResultStatus signalled(Status::Type status, int waitStatus) {
  return {status, WatchProcessState_t::signalled, -1, 0, WTERMSIG(waitStatus)};
}

// The outcome of a program that ended by itself.
ResultStatus ended(std::optional<int> end) {
  if (!end) {
    return failed(ECHILD);
  }
  if (WIFSIGNALED(*end)) {
    return signalled(Status::failure, *end);
  }
  const int exitStatus = WEXITSTATUS(*end);
  return {exitStatus == 0 ? Status::success : Status::failure, WatchProcessState_t::exited,
          exitStatus, 0, 0};
}

// The outcome of a program that was stopped at its time limit.
ResultStatus timedOut(std::optional<int> end) {
  const int signal = end && WIFSIGNALED(*end) ? WTERMSIG(*end) : 0;
  return {Status::timeout, WatchProcessState_t::timedOut, -1, ETIMEDOUT, signal};
}

// The outcome of a program that was stopped on request. The request succeeded.
ResultStatus stopped(std::optional<int> end) {
  if (!end) {
    return failed(ECHILD);
  }
  if (WIFSIGNALED(*end)) {
    return signalled(Status::success, *end);
  }
  return {Status::success, WatchProcessState_t::exited, WEXITSTATUS(*end), 0, 0};
}

ProgramWatch::Clock::time_point deadlineIn(int limit) {
  return limit == 0 ? ProgramWatch::Clock::time_point::max()
                    : ProgramWatch::Clock::now() + std::chrono::seconds(limit);
}

ResultStatus runAndWait(const std::vector<std::string>& argv, int limit, std::string& output) {
  ProgramOutput pipe(output);
  UniqueFd writing;
  if (const int error = pipe.open(writing)) {
    return failed(error);
  }
  ChildProcess program;
  if (const int error = program.start(argv, writing.get())) {
    return failed(error);
  }
  writing.reset();
  ProgramWatch watch(program, &pipe);
  const bool inTime = watch.endsBefore(deadlineIn(limit));
  if (!inTime) {
    watch.stop();
  }
  pipe.takeRest();
  return inTime ? ended(program.reap()) : timedOut(program.reap());
}

ResultStatus leaveRunning(const std::vector<std::string>& argv, ChildProcess& background) {
  const UniqueFd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (!nowhere.valid()) {
    return failed(errno);
  }
  if (const int error = background.start(argv, nowhere.get())) {
    return failed(error);
  }
  return {Status::running, WatchProcessState_t::running, 0, 0, 0};
}

}  // namespace

struct ProgramRunner::State {
  std::string output;
  ChildProcess background;
};

ProgramRunner::ProgramRunner() : state_(std::make_unique<State>()) {}

ProgramRunner::~ProgramRunner() = default;

ResultStatus ProgramRunner::run(const std::vector<std::string>& argv, int limit) {
  state_->output = std::string();  // also releases the memory of a long output
  state_->background.forget();
  if (argv.empty() || std::any_of(argv.begin(), argv.end(), hasZeroByte)) {
    return failed(EINVAL);
  }
  return limit < 0 ? leaveRunning(argv, state_->background)
                   : runAndWait(argv, limit, state_->output);
}

ResultStatus ProgramRunner::kill() {
  ChildProcess& background = state_->background;
  // The end of a program that ended before stays available to `wait`.
  if (!background.held() || background.hasEnded()) {
    return failed(ESRCH);
  }
  ProgramWatch(background, nullptr).stop();
  return stopped(background.reap());
}

ResultStatus ProgramRunner::wait() {
  ChildProcess& background = state_->background;
  return background.held() ? ended(background.reap()) : failed(ECHILD);
}

const std::string& ProgramRunner::output() const {
  return state_->output;
}

void reapForgottenPrograms() noexcept {
  ChildProcess::reapForgotten();
}

}  // namespace zell
