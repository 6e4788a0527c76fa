// SPDX-License-Identifier: Apache-2.0
// Commands that process a list of paths.
#ifndef RUNELCTL_COMMANDS_LISTS_H_
#define RUNELCTL_COMMANDS_LISTS_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "commands/command.h"
#include "commands/path_expander.h"

namespace runelctl {

/// Visits one path after the other. A failure does not stop the visits. The first failure is the
/// outcome, the others are reported as warnings.
class EachPathJob : public Job {
 public:
  EachPathJob(JobContext context, std::vector<std::string> paths);
  void start() override;

 protected:
  [[nodiscard]] const std::vector<std::string>& paths() const { return paths_; }
  void setPaths(std::vector<std::string> paths) { paths_ = std::move(paths); }
  /// Records the failure of one path.
  void failPath(const Error& error);
  /// Sends the requests for @p path and calls `visited` at the end.
  virtual void visit(const std::string& path) = 0;
  void visited(const runel::Reply& reply, const std::string& path);

 private:
  std::vector<std::string> paths_;
  std::size_t next_ = 0;
  Outcome outcome_;
};

/// The same for words that may be patterns. All of them are expanded before the first visit.
class EachMatchJob : public EachPathJob {
 public:
  /// @p words as given on the command line.
  EachMatchJob(JobContext context, const std::vector<std::string>& words);
  void start() override;
  [[nodiscard]] std::string sentLater() const override;

 protected:
  /// For a dry run: the task of a visit.
  [[nodiscard]] virtual std::string taskText() const = 0;
  /// For a dry run: the requests of a visit that depend on answers. Empty for none.
  [[nodiscard]] virtual std::string laterOfVisits() const { return ""; }

 private:
  [[nodiscard]] bool hasPatterns() const;
  void startDry();

  const std::vector<std::string> words_;
  PathExpander expander_;
};

/// A command with a list of remote paths.
class PathsCommand : public Command {
 public:
  /// @p fallback is the default path; empty if a path is required.
  PathsCommand(std::string name, std::string help, std::string fallback)
      : Command(std::move(name), std::move(help)), fallback_(std::move(fallback)) {}
  void define(CLI::App& app) override;

 protected:
  [[nodiscard]] std::vector<std::string> paths(const Settings& settings) const;
  /// The same as given on the command line.
  [[nodiscard]] std::vector<std::string> words(const Settings& settings) const;

 private:
  const std::string fallback_;
  std::vector<std::string> paths_;
};

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_LISTS_H_
