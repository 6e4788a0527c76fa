// SPDX-License-Identifier: Apache-2.0
// Commands that process a list of paths.
#ifndef RUNELCTL_COMMANDS_LISTS_H_
#define RUNELCTL_COMMANDS_LISTS_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "commands/command.h"

namespace runelctl {

/// Visits one path after the other. A failure does not stop the visits. The first failure is the
/// outcome, the others are reported as warnings.
class EachPathJob : public Job {
 public:
  EachPathJob(JobContext context, std::vector<std::string> paths);
  void start() override;

 protected:
  /// Sends the requests for @p path and calls `visited` at the end.
  virtual void visit(const std::string& path) = 0;
  void visited(const runel::Reply& reply, const std::string& path);

 private:
  const std::vector<std::string> paths_;
  std::size_t next_ = 0;
  Outcome outcome_;
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

 private:
  const std::string fallback_;
  std::vector<std::string> paths_;
};

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_LISTS_H_
