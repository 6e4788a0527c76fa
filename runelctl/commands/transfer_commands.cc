// SPDX-License-Identifier: Apache-2.0
// push, pull and sync: their arguments.
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands/command.h"
#include "commands/pull_job.h"
#include "commands/push_job.h"

namespace zell::ctl {
namespace {

void defineTransfer(CLI::App& app, bool& resume, bool& checksum) {
  app.add_flag("--resume,!--no-resume", resume,
               "take up a broken transfer where it ended (default)");
  app.add_flag("--checksum", checksum, "compare SHA-256 sums at the end");
}

// Several words, of which the last is where they go.
bool splitLast(std::vector<std::string>& words, std::string& last) {
  if (words.size() < 2) {
    return false;
  }
  last = words.back();
  words.pop_back();
  return true;
}

std::optional<Error> scanSources(const std::vector<std::string>& paths, bool recursive,
                                 PushPlan& plan) {
  for (const std::string& path : paths) {
    LocalSource source;
    if (auto error = scanLocal(path, recursive, source, plan.left)) {
      return error;
    }
    plan.sources.push_back(std::move(source));
  }
  return std::nullopt;
}

class PushCommand : public Command {
 public:
  PushCommand() : Command("push", "send files, and trees with -r, to where the last name says") {}

  void define(CLI::App& app) override {
    app.add_flag("-r,--recursive", recursive_, "folders with all that is in them");
    defineTransfer(app, plan_->resume, plan_->checksum);
    app.add_option("NAMES", words_, "LOCAL... REMOTE")->required()->type_name("");
  }

  std::string check(const Settings& settings) override {
    (void)settings;
    if (!splitLast(words_, plan_->remote)) {
      return "push: what is to be sent, and to where on the device?";
    }
    return "";
  }

  std::optional<Error> prepare() override { return scanSources(words_, recursive_, *plan_); }

  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<PushJob>(std::move(context), plan_);
  }

 private:
  bool recursive_ = false;
  std::vector<std::string> words_;
  std::shared_ptr<PushPlan> plan_ = std::make_shared<PushPlan>();
};

class SyncCommand : public Command {
 public:
  SyncCommand() : Command("sync", "make a folder on the device equal, sending only what differs") {}

  void define(CLI::App& app) override {
    app.add_flag("--delete", plan_->remove, "remove there what is not here");
    defineTransfer(app, plan_->resume, plan_->checksum);
    app.add_option("LOCAL", local_, "a folder here")->required()->type_name("");
    app.add_option("REMOTE", plan_->remote, "the folder there")->required()->type_name("");
  }

  std::optional<Error> prepare() override {
    plan_->sync = true;
    return scanSources({local_}, true, *plan_);
  }

  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<PushJob>(std::move(context), plan_);
  }

  [[nodiscard]] bool takesAway() const override { return plan_->remove; }

 private:
  std::string local_;
  std::shared_ptr<PushPlan> plan_ = std::make_shared<PushPlan>();
};

class PullCommand : public Command {
 public:
  PullCommand() : Command("pull", "fetch files, and trees with -r, to where the last name says") {}

  void define(CLI::App& app) override {
    app.add_flag("-r,--recursive", plan_.recursive, "folders with all that is in them");
    defineTransfer(app, plan_.resume, plan_.checksum);
    app.add_option("NAMES", plan_.remotes, "REMOTE... LOCAL")->required()->type_name("");
  }

  std::string check(const Settings& settings) override {
    (void)settings;
    if (!splitLast(plan_.remotes, plan_.local) || plan_.local.empty()) {
      return "pull: what is to be fetched, and to where here?";
    }
    return "";
  }

  std::unique_ptr<Job> job(JobContext context) override {
    PullPlan plan = plan_;
    plan.apart = context.settings.targets.size() > 1;
    return std::make_unique<PullJob>(std::move(context), std::move(plan));
  }

 private:
  PullPlan plan_;
};

}  // namespace

void addTransferCommands(Commands& commands) {
  commands.push_back(std::make_unique<PushCommand>());
  commands.push_back(std::make_unique<PullCommand>());
  commands.push_back(std::make_unique<SyncCommand>());
}

}  // namespace zell::ctl
