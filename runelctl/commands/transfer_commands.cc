// SPDX-License-Identifier: Apache-2.0
// The commands push, pull and sync, and their arguments.
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands/command.h"
#include "commands/pull_job.h"
#include "commands/push_job.h"

namespace runelctl {
namespace {

void defineTransfer(CLI::App& app, bool& resume, bool& checksum) {
  app.add_flag("--resume,!--no-resume", resume, "resume an interrupted transfer (default)");
  app.add_flag("--checksum", checksum, "verify SHA-256 checksums after the transfer");
}

// Splits the target, which is the last word, from the sources.
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
  PushCommand() : Command("push", "copy files, or with -r directories, to the device") {}

  void define(CLI::App& app) override {
    app.add_flag("-r,--recursive", recursive_, "copy directories recursively");
    defineTransfer(app, plan_->resume, plan_->checksum);
    app.add_option("NAMES", words_, "LOCAL... REMOTE")->required()->type_name("");
  }

  std::string check(const Settings& settings) override {
    (void)settings;
    if (!splitLast(words_, plan_->remote)) {
      return "push: expected LOCAL... REMOTE";
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
  SyncCommand()
      : Command("sync",
                "make a directory on the device equal to a local one; send only differences") {}

  void define(CLI::App& app) override {
    app.add_flag("--delete", plan_->remove, "remove files on the device that are missing here");
    defineTransfer(app, plan_->resume, plan_->checksum);
    app.add_option("LOCAL", local_, "local directory")->required()->type_name("");
    app.add_option("REMOTE", plan_->remote, "directory on the device")->required()->type_name("");
  }

  std::optional<Error> prepare() override {
    plan_->sync = true;
    return scanSources({local_}, true, *plan_);
  }

  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<PushJob>(std::move(context), plan_);
  }

  [[nodiscard]] bool destructive() const override { return plan_->remove; }

 private:
  std::string local_;
  std::shared_ptr<PushPlan> plan_ = std::make_shared<PushPlan>();
};

class PullCommand : public Command {
 public:
  PullCommand() : Command("pull", "copy files, or with -r directories, from the device") {}

  void define(CLI::App& app) override {
    app.add_flag("-r,--recursive", plan_.recursive, "copy directories recursively");
    defineTransfer(app, plan_.resume, plan_.checksum);
    app.add_option("NAMES", plan_.remotes, "REMOTE... LOCAL")->required()->type_name("");
  }

  std::string check(const Settings& settings) override {
    (void)settings;
    if (!splitLast(plan_.remotes, plan_.local) || plan_.local.empty()) {
      return "pull: expected REMOTE... LOCAL";
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

}  // namespace runelctl
