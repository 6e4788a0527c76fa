// SPDX-License-Identifier: Apache-2.0
// Commands about programs on the device: exec, sh, ps.
#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands/command.h"
#include "commands/job_flags.h"
#include "commands/number_range.h"
#include "commands/stream_job.h"
#include "output/text.h"
#include "protocol/protocol.h"

namespace runelctl {
namespace {

// In the shell, a program runs in the directory of the last "cd". The task "exec" has no directory.
std::vector<std::string> inDirectory(const Settings& settings, std::vector<std::string> program) {
  if (settings.runThere) {
    const std::vector<std::string> shell{"/bin/sh", "-c", "cd -- \"$0\" && exec \"$@\"",
                                         settings.directory};
    program.insert(program.begin(), shell.begin(), shell.end());
  }
  return program;
}

// Prints the output of the program unchanged and returns its exit status.
class ExecJob : public Job {
 public:
  ExecJob(JobContext context, runel::Request request, std::string program)
      : Job(std::move(context)), request_(std::move(request)), program_(std::move(program)) {}

  void start() override {
    if (settings().gateway && request_.execLimit() == 0) {
      fail({Fault::local, program_ + ": not run: through a gateway a program needs a limit",
            "use --timeout, or a job: see exec --stream and runelctl job", EOPNOTSUPP});
      return;
    }
    ask(request_, [this](runel::Reply reply) { show(std::move(reply)); });
  }

 private:
  void show(runel::Reply reply) {
    Outcome outcome = outcomeOf(reply);
    if (reply.answered()) {
      if (reply.state() == runel::ProgramState::signalled) {
        report().result()["signal"] = reply.signal();
      }
      if (reply.output().size() >= zell::kMaxProgramOutput) {
        truncated(outcome);
      }
      report().output(reply.takeOutput());
    }
    finish(std::move(outcome));
  }

  [[nodiscard]] Outcome outcomeOf(const runel::Reply& reply) {
    if (reply.ok() || (reply.answered() && reply.status() == runel::Status::running)) {
      return {};
    }
    if (reply.answered() && reply.state() == runel::ProgramState::exited) {
      // Report only the exit status, like a shell.
      return {exitStatusOf(reply),
              report().json() ? std::make_optional(reply.error(program_)) : std::nullopt};
    }
    return {statusOf(reply), reply.error(program_)};
  }

  // The device does not say whether it has discarded output, so a complete one of exactly this size
  // is reported too.
  void truncated(Outcome& outcome) {
    const std::string what =
        "output truncated: the device keeps at most " + sizeText(zell::kMaxProgramOutput);
    report().warn(program_ + ": " + what + " (use --stream for the complete output)");
    report().result()["truncated"] = true;
    if (outcome.status == 0) {
      outcome.status = kExitTaskFailed;
      outcome.reason = what;
    }
  }

  static int statusOf(const runel::Reply& reply) {
    const bool notStarted = reply.answered() && reply.state() == runel::ProgramState::none &&
                            reply.status() == runel::Status::failure;
    if (!notStarted) {
      return exitStatusOf(reply);
    }
    return reply.number() == ENOENT ? kExitNotThere : kExitCannotRun;
  }

  const runel::Request request_;
  const std::string program_;
};

// A command that runs its program as a job with --stream.
class StreamableCommand : public Command {
 public:
  using Command::Command;

  std::string check(const Settings& settings) override {
    (void)settings;
    return stream_ ? flags_.check() : "";
  }
  std::optional<Error> prepare() override { return stream_ ? flags_.prepare() : std::nullopt; }
  [[nodiscard]] bool streams() const override { return stream_; }
  // The limit for a connection that is lost is enough.
  [[nodiscard]] bool transfers() const override { return stream_; }
  [[nodiscard]] std::optional<int> programLimit(const Settings& settings) const override {
    return limit_ > 0 ? limit_ : settings.programLimit;
  }

 protected:
  CLI::Option* defineLimit(CLI::App& app, const std::string& help) {
    return app.add_option("--timeout", limit_, help)
        ->check(numberRange(1, 2147483647))
        ->type_name("SECONDS");
  }

  CLI::Option* defineStream(CLI::App& app) {
    CLI::Option* stream =
        app.add_flag("--stream", stream_, "run it as a job and print its output while it runs");
    app.add_flag("--keep", keep_, "keep the job on the device when it has ended")->needs(stream);
    flags_.defineStart(app, stream);
    flags_.defineDirectory(app, stream);
    flags_.defineReconnect(app, stream);
    return stream;
  }

  std::unique_ptr<Job> streamJob(JobContext context, std::vector<std::string> words) {
    StreamPlan plan;
    plan.place = flags_.place();
    const Settings& settings = context.settings;
    plan.start = flags_.plan(std::move(words), settings.runThere ? settings.directory : "",
                             programLimitFor(context, limit_));
    plan.input = flags_.input();
    plan.follow.limit = flags_.reconnect();
    plan.remove = !keep_;
    return std::make_unique<StreamJob>(std::move(context), std::move(plan));
  }

  int limit_ = 0;  // of the command line; 0 without one

 private:
  JobFlags flags_;
  bool stream_ = false;
  bool keep_ = false;
};

class ExecCommand : public StreamableCommand {
 public:
  ExecCommand() : StreamableCommand("exec", "run a program; return its output and exit status") {}

  void define(CLI::App& app) override {
    app.positionals_at_end();
    app.add_flag("--background", background_, "start the program and do not wait for it")
        ->excludes(defineLimit(app, "limit for the program (default: none)"))
        ->excludes(defineStream(app));
    app.add_option("PROGRAM", words_, "program and its arguments, after '--'")->required();
  }

  std::string check(const Settings& settings) override {
    return background_ && settings.programLimitGiven ? "exec: --background excludes --timeout"
                                                     : StreamableCommand::check(settings);
  }

  std::unique_ptr<Job> job(JobContext context) override {
    if (streams()) {
      return streamJob(std::move(context), words_);
    }
    const int limit = background_ ? -1 : programLimitFor(context, limit_);
    const std::vector<std::string> program = inDirectory(context.settings, words_);
    return std::make_unique<ExecJob>(std::move(context), runel::Request::exec(program, limit),
                                     words_[0]);
  }

 private:
  bool background_ = false;
  std::vector<std::string> words_;
};

class ShellLineCommand : public StreamableCommand {
 public:
  ShellLineCommand() : StreamableCommand("sh", "run a command line with the device's /bin/sh") {}

  void define(CLI::App& app) override {
    app.positionals_at_end();
    (void)defineLimit(app, "limit for the command line (default: none)");
    (void)defineStream(app);
    app.add_option("LINE", line_, "command line, as one argument")->required()->type_name("");
  }

  std::unique_ptr<Job> job(JobContext context) override {
    if (streams()) {
      return streamJob(std::move(context), {"/bin/sh", "-c", line_});
    }
    std::string line = line_;
    const int limit = programLimitFor(context, limit_);
    if (!context.settings.directory.empty()) {
      return std::make_unique<ExecJob>(
          std::move(context),
          runel::Request::exec(
              {"/bin/sh", "-c", "cd -- \"$0\" || exit\n" + line, context.settings.directory},
              limit),
          "sh");
    }
    return std::make_unique<ExecJob>(std::move(context),
                                     runel::Request::exec({"/bin/sh", "-c", line}, limit), "sh");
  }

 private:
  std::string line_;
};

// "processrunning" with human-readable output.
class PsJob : public Job {
 public:
  PsJob(JobContext context, std::string process)
      : Job(std::move(context)), process_(std::move(process)) {}

  void start() override {
    ask(runel::Request({"processrunning", process_}),
        [this](const runel::Reply& reply) { show(reply); });
  }

 private:
  void show(const runel::Reply& reply) {
    const bool absent = reply.answered() && reply.number() == ESRCH;
    if (!reply.ok() && !absent) {
      fail(reply, "ps " + process_);
      return;
    }
    putBytes(report().result(), "name", process_);
    report().result()["running"] = reply.ok();
    report().line(report().name(process_) + (reply.ok() ? " runs" : " does not run"));
    finish({reply.ok() ? 0 : kExitTaskFailed, std::nullopt});
  }

  const std::string process_;
};

class PsCommand : public Command {
 public:
  PsCommand()
      : Command("ps", "test whether a process with this name runs (exit status 1: it does not)") {}

  void define(CLI::App& app) override { app.add_option("NAME", process_)->required(); }

  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<PsJob>(std::move(context), process_);
  }

 private:
  std::string process_;
};

}  // namespace

void addProgramCommands(Commands& commands) {
  commands.push_back(std::make_unique<ExecCommand>());
  commands.push_back(std::make_unique<ShellLineCommand>());
  commands.push_back(std::make_unique<PsCommand>());
}

}  // namespace runelctl
