// SPDX-License-Identifier: Apache-2.0
#include "device/linux/program_runner.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <sys/wait.h>

#include "base/unique_fd.h"
#include "device/linux/paths.h"
#include "device/linux/program_output.h"
#include "device/linux/program_watch.h"

namespace zell {
namespace {

using Status = SlaveStatus;
using State = WatchProcessState_t;

ResultStatus failed(int error) {
  return {Status::failure, State::none, 1, error, 0};
}

ResultStatus signalled(Status::Type status, int waitStatus) {
  return {status, State::signalled, -1, 0, WTERMSIG(waitStatus)};
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
  return {exitStatus == 0 ? Status::success : Status::failure, State::exited, exitStatus, 0, 0};
}

// The outcome of a program that was stopped at its time limit.
ResultStatus timedOut(std::optional<int> end) {
  const int signal = end && WIFSIGNALED(*end) ? WTERMSIG(*end) : 0;
  return {Status::timeout, State::timedOut, -1, ETIMEDOUT, signal};
}

// The outcome of a program that was stopped on request. The request succeeded.
ResultStatus stopped(std::optional<int> end) {
  if (!end) {
    return failed(ECHILD);
  }
  if (WIFSIGNALED(*end)) {
    return signalled(Status::success, *end);
  }
  return {Status::success, State::exited, WEXITSTATUS(*end), 0, 0};
}

ProgramWatch::Clock::time_point deadlineIn(int limit) {
  return limit == 0 ? ProgramWatch::Clock::time_point::max()
                    : ProgramWatch::Clock::now() + std::chrono::seconds(limit);
}

}  // namespace

ResultStatus ProgramRunner::run(const std::vector<std::string>& argv, int limit) {
  output_ = std::string();  // also releases the memory of a long output
  background_.forget();
  if (argv.empty() || std::any_of(argv.begin(), argv.end(), hasZeroByte)) {
    return failed(EINVAL);
  }
  return limit < 0 ? leaveRunning(argv) : runAndWait(argv, limit);
}

ResultStatus ProgramRunner::runAndWait(const std::vector<std::string>& argv, int limit) {
  ProgramOutput pipe(output_);
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

ResultStatus ProgramRunner::leaveRunning(const std::vector<std::string>& argv) {
  const UniqueFd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (!nowhere.valid()) {
    return failed(errno);
  }
  if (const int error = background_.start(argv, nowhere.get())) {
    return failed(error);
  }
  return {Status::running, State::running, 0, 0, 0};
}

ResultStatus ProgramRunner::kill() {
  // The end of a program that ended before stays available to `wait`.
  if (!background_.held() || background_.hasEnded()) {
    return failed(ESRCH);
  }
  ProgramWatch(background_, nullptr).stop();
  return stopped(background_.reap());
}

ResultStatus ProgramRunner::wait() {
  return background_.held() ? ended(background_.reap()) : failed(ECHILD);
}

}  // namespace zell
