// SPDX-License-Identifier: Apache-2.0
// The commands push, pull and sync, and their arguments.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "client/core/path_filter.h"
#include "client/core/paths.h"
#include "commands/bzip2.h"
#include "commands/command.h"
#include "commands/gzip.h"
#include "commands/read_input.h"
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
    plan.options.setResume(resume_).setChecksum(checksum_).setDelta(delta_).setExcludes(excludes_);
    if (!plain_) {
      plan.options.setCompression(PieceGzip(), compress_).setBzip2(bzip2);
    }
    return std::make_unique<TransferJob>(std::move(context), std::move(plan));
  }

  [[nodiscard]] bool transfers() const override { return true; }
  [[nodiscard]] bool plans() const override { return true; }

  std::string check(const Settings& settings) override {
    (void)settings;
    return readExcludes();
  }

 protected:
  void defineChecks(CLI::App& app) {
    app_ = &app;
    excludeOption_ =
        app.add_option("--exclude", excludeWords_,
                       "leave out what matches, such as '*.o', '/build/' or 'doc/**'; repeatable")
            ->allow_extra_args(false)
            ->type_name("PATTERN");
    app.add_option("--exclude-from", excludeFiles_,
                   "the same with the patterns in FILE, one a line ('-': standard input)")
        ->allow_extra_args(false)
        ->type_name("FILE");
    auto* resume = app.add_flag_callback(
        "--resume", [this] { resume_ = true; }, "continue an interrupted transfer (default)");
    app.add_flag_callback(
           "--no-resume", [this] { resume_ = false; },
           "transfer from the beginning, and leave no partial file after an interruption")
        ->excludes(resume);
    app.add_flag("--checksum", checksum_, "verify SHA-256 checksums after the transfer");
  }

  void defineCompression(CLI::App& app) {
    CLI::Option* const compress = app.add_flag(
        "-z,--compress", compress_,
        "compress large files if that is faster (default: only on a line slower than 5 MB/s)");
    app.add_flag("--no-compress", plain_, "compress nothing")->excludes(compress);
  }

  void defineDelta(CLI::App& app) {
    auto* always = app.add_flag_callback(
        "--delta", [this] { delta_ = runel::Delta::always; },
        "of a file larger than 512 KiB whose target exists, send only the differences (default: "
        "above 4 MiB, on a line slower than 5 MB/s)");
    app.add_flag_callback(
           "--no-delta", [this] { delta_ = runel::Delta::never; }, "always send whole files")
        ->excludes(always);
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
    auto files = runel::PushSources::scan(plan().sources, recursive, excludes_);
    if (!files) {
      return files.error();
    }
    plan().files = *files;
    return std::nullopt;
  }

  TransferPlan& plan() { return plan_; }
  [[nodiscard]] const TransferPlan& plan() const { return plan_; }

 private:
  // Both options together, in the order of the command line: the first rule that matches decides.
  std::string readExcludes() {
    std::size_t word = 0;
    std::size_t file = 0;
    for (const CLI::Option* option : app_->parse_order()) {
      if (option == excludeOption_) {
        excludes_.push_back(excludeWords_[word++]);
      } else if (option->check_lname("exclude-from")) {
        std::string rules;
        const std::string error = readText(excludeFiles_[file++], rules);
        if (!error.empty()) {
          return name() + ": --exclude-from: " + error;
        }
        const std::vector<std::string> lines = runel::filterRulesIn(rules);
        excludes_.insert(excludes_.end(), lines.begin(), lines.end());
      }
    }
    runel::PathFilter filter;
    const auto error = filter.add(excludes_);
    return error ? name() + ": " + error->text() : "";
  }

  TransferPlan plan_;
  CLI::App* app_ = nullptr;
  const CLI::Option* excludeOption_ = nullptr;
  std::vector<std::string> excludeWords_;
  std::vector<std::string> excludeFiles_;
  std::vector<std::string> excludes_;
  bool resume_ = true;
  bool checksum_ = false;
  bool compress_ = false;
  bool plain_ = false;
  runel::Delta delta_ = runel::Delta::automatic;
};

class PushCommand : public TransferCommand {
 public:
  PushCommand()
      : TransferCommand("push", "copy files, or with -r directories, to the device",
                        TransferPlan::Way::push) {}

  void define(CLI::App& app) override {
    app.add_flag("-r,--recursive", recursive_, "copy directories recursively");
    defineChecks(app);
    defineCompression(app);
    defineDelta(app);
    app.add_option("NAMES", plan().sources, "LOCAL... REMOTE ('-': standard input)")
        ->required()
        ->type_name("");
  }

  std::string check(const Settings& settings) override {
    if (!splitLast()) {
      return "push: expected LOCAL... REMOTE";
    }
    if (!readsInput()) {
      return TransferCommand::check(settings);
    }
    const std::string& target = plan().target;
    const bool named = !target.empty() && target.back() != '/' && target != "." && target != "..";
    return plan().sources.size() > 1 ? "push: standard input must be the only source"
           : named                   ? TransferCommand::check(settings)
                                     : "push: standard input needs the name of a file";
  }

  std::optional<Error> prepare() override {
    if (readsInput()) {
      auto input = spoolInput(runel::baseName(plan().target));
      if (!input) {
        return input.error();
      }
      plan().input = *input;
      plan().sources = {plan().input->path()};
    }
    return scan(recursive_);
  }

 private:
  bool readsInput() {
    const std::vector<std::string>& sources = plan().sources;
    return std::find(sources.begin(), sources.end(), "-") != sources.end();
  }

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
    defineCompression(app);
    defineDelta(app);
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
    app.add_option("NAMES", plan().sources, "REMOTE... LOCAL ('-': standard output)")
        ->required()
        ->type_name("");
  }

  std::string check(const Settings& settings) override {
    if (!splitLast() || plan().target.empty()) {
      return "pull: expected REMOTE... LOCAL";
    }
    plan().toOutput = plan().target == "-";
    if (plan().toOutput && (recursive_ || plan().sources.size() > 1)) {
      return "pull: standard output takes one file";
    }
    plan().options.setRecursive(recursive_);
    return TransferCommand::check(settings);
  }
  // A pull to standard output changes nothing that could be listed: its dry run prints the frames.
  [[nodiscard]] bool plans() const override {
    return plan().sources.empty() || plan().sources.back() != "-";
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
