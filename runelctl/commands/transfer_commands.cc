// SPDX-License-Identifier: Apache-2.0
// The commands push, pull and sync, and their arguments.
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands/command.h"
#include "commands/transfer_job.h"

namespace runelctl {
namespace {

class TransferCommand : public Command {
 public:
  TransferCommand(std::string name, std::string help, TransferPlan::Way way)
      : Command(std::move(name), std::move(help)) {
    plan_.way = way;
  }

  std::unique_ptr<Job> job(JobContext context) override {
    TransferPlan plan = plan_;
    plan.options.setResume(resume_).setChecksum(checksum_);
    return std::make_unique<TransferJob>(std::move(context), std::move(plan));
  }

  [[nodiscard]] bool transfers() const override { return true; }

 protected:
  void defineChecks(CLI::App& app) {
    app.add_flag("--resume,!--no-resume", resume_, "resume an interrupted transfer (default)");
    app.add_flag("--checksum", checksum_, "verify SHA-256 checksums after the transfer");
  }

  // The target is the last word.
  bool splitLast() {
    if (plan().sources.size() < 2) {
      return false;
    }
    plan().target = plan().sources.back();
    plan().sources.pop_back();
    return true;
  }

  std::optional<Error> scan(bool recursive) {
    auto files = runel::PushSources::scan(plan().sources, recursive);
    if (!files) {
      return files.error();
    }
    plan().files = *files;
    return std::nullopt;
  }

  TransferPlan& plan() { return plan_; }

 private:
  TransferPlan plan_;
  bool resume_ = true;
  bool checksum_ = false;
};

class PushCommand : public TransferCommand {
 public:
  PushCommand()
      : TransferCommand("push", "copy files, or with -r directories, to the device",
                        TransferPlan::Way::push) {}

  void define(CLI::App& app) override {
    app.add_flag("-r,--recursive", recursive_, "copy directories recursively");
    defineChecks(app);
    app.add_option("NAMES", plan().sources, "LOCAL... REMOTE")->required()->type_name("");
  }

  std::string check(const Settings& settings) override {
    (void)settings;
    return splitLast() ? "" : "push: expected LOCAL... REMOTE";
  }

  std::optional<Error> prepare() override { return scan(recursive_); }

 private:
  bool recursive_ = false;
};

class SyncCommand : public TransferCommand {
 public:
  SyncCommand()
      : TransferCommand(
            "sync", "make a directory on the device equal to a local one; send only differences",
            TransferPlan::Way::sync) {}

  void define(CLI::App& app) override {
    app.add_flag("--delete", remove_, "remove files on the device that are missing here");
    defineChecks(app);
    app.add_option("LOCAL", local_, "local directory")->required()->type_name("");
    app.add_option("REMOTE", plan().target, "directory on the device")->required()->type_name("");
  }

  std::optional<Error> prepare() override {
    plan().sources = {local_};
    plan().options.setDelete(remove_);
    return scan(true);
  }

  [[nodiscard]] bool destructive() const override { return remove_; }

 private:
  std::string local_;
  bool remove_ = false;
};

class PullCommand : public TransferCommand {
 public:
  PullCommand()
      : TransferCommand("pull", "copy files, or with -r directories, from the device",
                        TransferPlan::Way::pull) {}

  void define(CLI::App& app) override {
    app.add_flag("-r,--recursive", recursive_, "copy directories recursively");
    defineChecks(app);
    app.add_option("NAMES", plan().sources, "REMOTE... LOCAL")->required()->type_name("");
  }

  std::string check(const Settings& settings) override {
    (void)settings;
    if (!splitLast() || plan().target.empty()) {
      return "pull: expected REMOTE... LOCAL";
    }
    plan().options.setRecursive(recursive_);
    return "";
  }

 private:
  bool recursive_ = false;
};

}  // namespace

void addTransferCommands(Commands& commands) {
  commands.push_back(std::make_unique<PushCommand>());
  commands.push_back(std::make_unique<PullCommand>());
  commands.push_back(std::make_unique<SyncCommand>());
}

}  // namespace runelctl
