// SPDX-License-Identifier: Apache-2.0
// The command "job" and its subcommands.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands/command.h"
#include "commands/job_flags.h"
#include "commands/number_range.h"
#include "commands/stream_job.h"

namespace runelctl {
namespace {

std::string stateText(const runel::JobRecord& job) {
  switch (job.phase()) {
    case runel::JobPhase::claimed:
      return "not started";
    case runel::JobPhase::running:
      return "running";
    case runel::JobPhase::interrupted:
      return "interrupted";
    default:
      return job.status->late ? "time limit" : "exit status " + std::to_string(job.status->code);
  }
}

const char* stateName(runel::JobPhase phase) {
  switch (phase) {
    case runel::JobPhase::claimed:
      return "claimed";
    case runel::JobPhase::running:
      return "running";
    case runel::JobPhase::interrupted:
      return "interrupted";
    default:
      return "ended";
  }
}

std::string utcText(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  char text[32] = "-";
  if (seconds > 0 && gmtime_r(&time, &parts) != nullptr) {
    (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  }
  return text;
}

class JobStartJob : public Job {
 public:
  JobStartJob(JobContext context, StreamPlan plan)
      : Job(std::move(context)), plan_(std::move(plan)) {
    putBytes(report().result(), "job", plan_.place.id);
  }

  void start() override {
    starter_ = std::make_unique<runel::JobStarter>(
        device(), plan_.place, *plan_.start, plan_.input, plan_.follow.limit,
        runel::JobStarter::Handlers{
            [this](runel::JobAnswer answer, const std::optional<runel::Error>& error) {
              end(answer, error);
            },
            [this](const runel::Error& error) {
              lost_ = true;
              report().note(error.text() + "; trying to connect again");
            }});
    starter_->start();
  }
  [[nodiscard]] bool knowsOutcome() const override { return true; }
  [[nodiscard]] std::string remainder() const override {
    return "the job may have started: " + attachLine(device().address().name(), plan_.place);
  }
  [[nodiscard]] std::string sentLater() const override {
    return plan_.input ? "append of standard input to a file; the same request to start it" : "";
  }

 private:
  void end(runel::JobAnswer answer, const std::optional<runel::Error>& error) {
    report().result()["started"] = answer == runel::JobAnswer::done;
    if (error) {
      Error shown(*error);
      if (answer == runel::JobAnswer::exists) {
        shown.hint = attachLine(device().address().name(), plan_.place);
      } else if (lost_ || error->outcome() == runel::Outcome::unknown) {
        shown.advise(remainder());
      }
      fail(shown);
      return;
    }
    report().line(plan_.place.id);
    succeed();
  }

  const StreamPlan plan_;
  std::unique_ptr<runel::JobStarter> starter_;
  bool lost_ = false;  // the connection, after a request
};

class JobListJob : public Job {
 public:
  JobListJob(JobContext context, runel::JobPlace place)
      : Job(std::move(context)), place_(std::move(place)) {}

  void start() override {
    ask(runel::listJobs(place_.directory), [this](const runel::Reply& reply) { show(reply); });
  }
  // It changes nothing.
  [[nodiscard]] bool resumes() const override { return true; }

 private:
  void show(const runel::Reply& reply) {
    const auto jobs = reply.answered()
                          ? runel::jobsIn(reply, place_)
                          : runel::Result<std::vector<runel::JobRecord>>(reply.error());
    if (!jobs) {
      fail(jobs.error());
      return;
    }
    for (const runel::JobRecord& job : *jobs) {
      showOne(job);
    }
    succeed();
  }

  void showOne(const runel::JobRecord& job) {
    const std::int64_t begun = job.started ? job.started->time : 0;
    char line[256];
    std::snprintf(line, sizeof line, "%-24s  %-15s  %s  ", job.id.c_str(), stateText(job).c_str(),
                  utcText(begun).c_str());
    report().line(line + report().name(job.command));
    report().entry([&] {
      Json object{{"entry", "job"}, {"job", job.id}, {"state", stateName(job.phase())}};
      putBytes(object, "command", job.command);
      if (begun != 0) {
        object["started"] = begun;
      }
      if (job.status) {
        object["exit_status"] = job.status->code;
        object["time_limit"] = job.status->late;
        object["ended"] = job.status->time;
        object["lost_stdout"] = job.status->lost[0];
        object["lost_stderr"] = job.status->lost[1];
      }
      return object;
    });
  }

  const runel::JobPlace place_;
};

// Sends one signal; or SIGTERM, and SIGKILL after a grace period if the program still runs.
class JobStopJob : public Job {
 public:
  JobStopJob(JobContext context, runel::JobPlace place, std::string only, runel::Milliseconds grace,
             runel::Milliseconds reconnect)
      : Job(std::move(context)),
        place_(std::move(place)),
        only_(std::move(only)),
        grace_(grace),
        reconnect_(reconnect) {
    putBytes(report().result(), "job", place_.id);
  }
  ~JobStopJob() override { loop().cancel(timer_); }

  void start() override {
    ask(runel::signalJob(place_, only_.empty() ? "TERM" : only_),
        [this](const runel::Reply& reply) { sent(reply); });
  }
  [[nodiscard]] std::string sentLater() const override {
    return only_.empty() ? "read of the status, repeatedly; the same request with KILL" : "";
  }

 private:
  void sent(const runel::Reply& reply) {
    const runel::JobAnswer answer = runel::jobAnswerOf(reply);
    report().result()["signalled"] = answer == runel::JobAnswer::done;
    const bool signalled = answer == runel::JobAnswer::done;
    const bool stops = only_.empty();  // or only sends a signal
    if (signalled && stops) {
      wait();
    } else if (signalled || (stops && answer == runel::JobAnswer::notRunning)) {
      succeed();
    } else {
      const runel::Error error = reply.answered() ? jobErrorOf(reply, place_) : reply.error();
      fail(error);
    }
  }

  void wait() {
    runel::JobFollow follow;
    follow.output = false;
    follow.started = true;
    follow.limit = reconnect_;
    follower_ = std::make_unique<runel::JobFollower>(
        device(), place_, follow,
        runel::JobFollower::Handlers{{},
                                     [this](const runel::JobEnd&) { succeed(); },
                                     [this](const runel::Error& error) { fail(error); },
                                     {}});
    follower_->start();
    timer_ = loop().after(grace_, [this] {
      timer_ = runel::Timer();
      follower_->signal("KILL", [](runel::JobAnswer) {});
    });
  }

  const runel::JobPlace place_;
  const std::string only_;
  const runel::Milliseconds grace_;
  const runel::Milliseconds reconnect_;
  std::unique_ptr<runel::JobFollower> follower_;
  runel::Timer timer_;
};

class JobRemoveJob : public Job {
 public:
  JobRemoveJob(JobContext context, runel::JobPlace place)
      : Job(std::move(context)), place_(std::move(place)) {
    putBytes(report().result(), "job", place_.id);
  }

  void start() override {
    ask(runel::removeJob(place_), [this](const runel::Reply& reply) {
      if (!reply.answered()) {
        fail(reply.error());
      } else if (runel::jobAnswerOf(reply) != runel::JobAnswer::done) {
        fail(runel::jobErrorOf(reply, place_));
      } else {
        succeed();
      }
    });
  }

 private:
  const runel::JobPlace place_;
};

// A subcommand with the flags of a job.
class JobVerb : public Command {
 public:
  using Command::Command;

  std::string check(const Settings& settings) override {
    (void)settings;
    return flags_.check();
  }
  std::optional<Error> prepare() override { return flags_.prepare(); }

 protected:
  // The arguments of a job that exists.
  void defineExisting(CLI::App& app) {
    flags_.defineDirectory(app);
    flags_.defineId(app);
  }

  JobFlags flags_;
};

class JobStartVerb : public JobVerb {
 public:
  JobStartVerb() : JobVerb("start", "start a program that continues without a connection") {}

  void define(CLI::App& app) override {
    app.positionals_at_end();
    app.add_option("--timeout", limit_, "limit for the program (default: none)")
        ->check(numberRange(1, 2147483647))
        ->type_name("SECONDS");
    flags_.defineNewId(app);
    flags_.defineStart(app);
    flags_.defineDirectory(app);
    flags_.defineReconnect(app);
    app.add_option("PROGRAM", words_, "program and its arguments, after '--'")->required();
  }

  std::unique_ptr<Job> job(JobContext context) override {
    StreamPlan plan;
    plan.place = flags_.place();
    const Settings& settings = context.settings;
    plan.start = flags_.plan(words_, settings.runThere ? settings.directory : "",
                             programLimitFor(context, limit_));
    plan.input = flags_.input();
    plan.follow.limit = flags_.reconnect();
    return std::make_unique<JobStartJob>(std::move(context), std::move(plan));
  }
  [[nodiscard]] std::optional<int> programLimit(const Settings& settings) const override {
    return limit_ > 0 ? limit_ : settings.programLimit;
  }

 private:
  int limit_ = 0;
  std::vector<std::string> words_;
};

class JobListVerb : public JobVerb {
 public:
  JobListVerb() : JobVerb("list", "list all jobs") {}

  void define(CLI::App& app) override { flags_.defineDirectory(app); }

  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<JobListJob>(std::move(context), flags_.place());
  }
};

// attach, output and wait.
class JobFollowVerb : public JobVerb {
 public:
  JobFollowVerb(std::string name, std::string help, bool output, bool wait)
      : JobVerb(std::move(name), std::move(help)) {
    follow_.output = output;
    follow_.wait = wait;
    follow_.makeRoom = wait;
  }

  void define(CLI::App& app) override {
    flags_.defineReconnect(app);
    defineExisting(app);
  }

  std::unique_ptr<Job> job(JobContext context) override {
    StreamPlan plan;
    plan.place = flags_.place();
    plan.follow = follow_;
    plan.follow.limit = flags_.reconnect();
    return std::make_unique<StreamJob>(std::move(context), std::move(plan));
  }
  [[nodiscard]] bool streams() const override { return follow_.output; }
  // The limit for a connection that is lost is enough.
  [[nodiscard]] bool transfers() const override { return true; }

 private:
  runel::JobFollow follow_;
};

class JobStopVerb : public JobVerb {
 public:
  JobStopVerb() : JobVerb("stop", "stop the program of a job, and wait for its end") {}

  void define(CLI::App& app) override {
    auto* only = app.add_option("--signal", only_, "send only this signal and do not wait")
                     ->check(CLI::IsMember({"INT", "TERM", "HUP", "KILL"}))
                     ->type_name("NAME");
    app.add_option("--grace", grace_, "time from SIGTERM to SIGKILL (default: 10)")
        ->check(numberRange(0.0, 86400.0))
        ->excludes(only)
        ->type_name("SECONDS");
    flags_.defineReconnect(app);
    defineExisting(app);
  }

  std::unique_ptr<Job> job(JobContext context) override {
    const auto grace = std::chrono::duration<double>(grace_);
    return std::make_unique<JobStopJob>(std::move(context), flags_.place(), only_,
                                        std::chrono::duration_cast<runel::Milliseconds>(grace),
                                        flags_.reconnect());
  }

 private:
  std::string only_;
  double grace_ = 10;
};

class JobRemoveVerb : public JobVerb {
 public:
  JobRemoveVerb() : JobVerb("remove", "remove a job that does not run, with its output") {}

  void define(CLI::App& app) override { defineExisting(app); }

  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<JobRemoveJob>(std::move(context), flags_.place());
  }
};

// Passes everything on to the subcommand that was given.
class JobCommand : public Command {
 public:
  JobCommand() : Command("job", "start, list, follow, stop and remove programs that run as jobs") {
    verbs_.push_back(std::make_unique<JobStartVerb>());
    verbs_.push_back(std::make_unique<JobListVerb>());
    verbs_.push_back(std::make_unique<JobFollowVerb>(
        "attach", "print the output of a job until it ends; return its exit status", true, true));
    verbs_.push_back(
        std::make_unique<JobFollowVerb>("output", "print the output so far", true, false));
    verbs_.push_back(std::make_unique<JobFollowVerb>(
        "wait", "wait until a job ends; return its exit status", false, true));
    verbs_.push_back(std::make_unique<JobStopVerb>());
    verbs_.push_back(std::make_unique<JobRemoveVerb>());
  }

  void define(CLI::App& app) override {
    app.require_subcommand(1);
    for (const auto& verb : verbs_) {
      CLI::App* sub = app.add_subcommand(verb->name(), verb->help());
      sub->fallthrough();
      verb->define(*sub);
      sub->final_callback([this, given = verb.get()] { verb_ = given; });
    }
  }
  std::string check(const Settings& settings) override { return verb_->check(settings); }
  std::optional<Error> prepare() override { return verb_->prepare(); }
  std::unique_ptr<Job> job(JobContext context) override { return verb_->job(std::move(context)); }
  [[nodiscard]] std::string task() const override { return name() + " " + verb_->name(); }
  [[nodiscard]] bool streams() const override { return verb_->streams(); }
  [[nodiscard]] bool transfers() const override { return verb_->transfers(); }
  [[nodiscard]] std::optional<int> programLimit(const Settings& settings) const override {
    return verb_->programLimit(settings);
  }

 private:
  Commands verbs_;
  Command* verb_ = nullptr;
};

}  // namespace

void addJobCommands(Commands& commands) {
  commands.push_back(std::make_unique<JobCommand>());
}

}  // namespace runelctl
