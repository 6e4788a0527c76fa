// SPDX-License-Identifier: Apache-2.0
// The execution of one command on one device.
#ifndef RUNELCTL_COMMANDS_JOB_H_
#define RUNELCTL_COMMANDS_JOB_H_

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include <runel/async_device.h>
#include <runel/loop.h>

#include "commands/settings.h"
#include "output/report.h"

namespace runelctl {

/// The result of a job: an exit status, and the error if it is not 0. The exit status of a program
/// comes without an error: the program reports its errors.
struct Outcome {
  int status = 0;
  std::optional<Error> error{};
  /// Of a failure without an error: what went wrong if the status does not say it.
  std::string reason{};
};

/// Why @p outcome is a failure, such as "exit status 3". May contain any bytes.
[[nodiscard]] inline std::string reasonOf(const Outcome& outcome) {
  if (outcome.error) {
    return outcome.error->what;
  }
  return outcome.reason.empty() ? "exit status " + std::to_string(outcome.status) : outcome.reason;
}

/// The environment of a job. All of it outlives the job.
struct JobContext {
  runel::Loop& loop;
  runel::AsyncDevice& device;
  Report& report;
  const Settings& settings;
  std::function<void(Outcome)> done;
};

/// The limit for a program in seconds, 0 for none. @p given is that of the command line, or 0.
[[nodiscard]] inline int programLimitFor(const JobContext& context, int given) {
  return given > 0 ? given : context.settings.programLimitOf(context.device.address());
}

/// Sends requests to the device step by step and calls `finish` once at the end. It may be
/// destroyed earlier; then it leaves no temporary files on this host, except a partial file for
/// resuming.
class Job {
 public:
  explicit Job(JobContext context) : context_(std::move(context)) {}
  virtual ~Job() = default;
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  virtual void start() = 0;
  /// For a dry run: describes the requests that depend on answers, which `start` does not send.
  /// Empty for none.
  [[nodiscard]] virtual std::string sentLater() const { return ""; }
  /// A request that removes the temporary files of an unfinished job from the device, for a
  /// separate connection. Empty if no cleanup is necessary.
  [[nodiscard]] virtual std::optional<runel::Request> cleanUp() const { return std::nullopt; }
  /// For a job that is ended from outside, such as by its deadline: what remains on the device.
  /// Empty for nothing.
  [[nodiscard]] virtual std::string remainder() const { return ""; }
  /// A signal interrupted runelctl. Returns true if this job deals with it and ends by itself; it
  /// is called again for each further signal. False to be cancelled.
  [[nodiscard]] virtual bool interrupt(int number) {
    (void)number;
    return false;
  }
  /// The reader of the output has left. Returns true if this job ends its program on the device and
  /// then itself. False to be cancelled.
  [[nodiscard]] virtual bool endProgram() { return false; }
  /// True for a job that tells itself what has become of its program: the requests that were not
  /// answered do not matter.
  [[nodiscard]] virtual bool knowsOutcome() const { return false; }
  /// True for a job that continues where an earlier attempt stopped, so that it may run again
  /// although tasks of that attempt have run. False for all others: a failed attempt is repeated
  /// only if none of its tasks has run that is not safe to repeat.
  [[nodiscard]] virtual bool resumes() const { return false; }

 protected:
  void ask(const runel::Request& request, runel::ReplyHandler handler) {
    context_.device.ask(request, std::move(handler));
  }
  void finish(Outcome outcome) { context_.done(std::move(outcome)); }
  void succeed() { finish({}); }
  void fail(const Error& error) { finish({exitStatusOf(error), error}); }
  /// Ends the job with the failure in @p reply of @p what.
  void fail(const runel::Reply& reply, const std::string& what) {
    finish({!reply.answered() ? exitStatusOf(reply) : kExitTaskFailed, reply.error(what)});
  }

  Report& report() { return context_.report; }
  [[nodiscard]] const Settings& settings() const { return context_.settings; }
  [[nodiscard]] const runel::AsyncDevice& device() const { return context_.device; }
  [[nodiscard]] std::string remote(const std::string& path) const {
    return context_.settings.remote(path);
  }
  runel::Loop& loop() { return context_.loop; }
  runel::AsyncDevice& device() { return context_.device; }

 private:
  JobContext context_;
};

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_JOB_H_
