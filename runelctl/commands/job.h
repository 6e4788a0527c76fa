// SPDX-License-Identifier: Apache-2.0
// The work of one command on one device.
#ifndef ZELL_RUNELCTL_COMMANDS_JOB_H_
#define ZELL_RUNELCTL_COMMANDS_JOB_H_

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "client/device.h"
#include "client/loop.h"
#include "commands/settings.h"
#include "output/report.h"

namespace zell::ctl {

/// How a job ended: an exit status, and the reason where it is not 0. A program's own exit status
/// has no reason: it is for the program to tell.
struct Outcome {
  int status = 0;
  std::optional<Error> error;
};

/// What a job works with. All of it outlives the job.
struct JobContext {
  Loop& loop;
  Device& device;
  Report& report;
  const Settings& settings;
  std::function<void(Outcome)> done;
};

/// Asks the device, step by step, and calls `finish` in the end, once. It may be destroyed at any
/// time before: then it leaves nothing of its own on this host.
class Job {
 public:
  explicit Job(JobContext context) : context_(std::move(context)) {}
  virtual ~Job() = default;
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  virtual void start() = 0;
  /// What `start` alone does not ask for, since it depends on answers, in words. Empty when all
  /// that is ever sent was asked for. For a dry run.
  [[nodiscard]] virtual std::string sentLater() const { return ""; }
  /// What takes away from the device what an unfinished job left there, over a connection of its
  /// own. Nothing when there is nothing to take away.
  [[nodiscard]] virtual std::optional<Request> cleanUp() const { return std::nullopt; }

 protected:
  void ask(const Request& request, ReplyHandler handler) {
    context_.device.ask(request, std::move(handler));
  }
  void finish(Outcome outcome) { context_.done(std::move(outcome)); }
  void succeed() { finish({}); }
  void fail(const Error& error) { finish({exitStatusOf(error), error}); }
  /// Ends with the failure that @p reply tells of, about @p what.
  void fail(const Reply& reply, const std::string& what) {
    finish({reply.broken ? reply.exitStatus() : kExitTaskFailed, reply.error(what)});
  }

  Report& report() { return context_.report; }
  [[nodiscard]] const Settings& settings() const { return context_.settings; }
  [[nodiscard]] std::string remote(const std::string& path) const {
    return context_.settings.remote(path);
  }
  Loop& loop() { return context_.loop; }
  Device& device() { return context_.device; }

 private:
  JobContext context_;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_JOB_H_
