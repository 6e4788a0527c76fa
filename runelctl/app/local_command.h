// SPDX-License-Identifier: Apache-2.0
// Subcommands that are no work on a device: the master, the shell and the like.
#ifndef ZELL_RUNELCTL_APP_LOCAL_COMMAND_H_
#define ZELL_RUNELCTL_APP_LOCAL_COMMAND_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "commands/settings.h"
#include "output/style.h"

namespace CLI {
class App;
}  // namespace CLI

namespace zell::ctl {

class LocalCommand {
 public:
  LocalCommand(std::string name, std::string help)
      : name_(std::move(name)), help_(std::move(help)) {}
  virtual ~LocalCommand() = default;
  LocalCommand(const LocalCommand&) = delete;
  LocalCommand& operator=(const LocalCommand&) = delete;

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] const std::string& help() const { return help_; }

  virtual void define(CLI::App& app) = 0;
  /// What is wrong with the arguments; empty when nothing is.
  virtual std::string check(const Settings& settings) {
    (void)settings;
    return "";
  }
  /// Does it, and gives the exit status.
  [[nodiscard]] virtual int run(const Settings& settings, const Style& style) = 0;
  /// True for what is not listed in the help.
  [[nodiscard]] virtual bool hidden() const { return false; }

 private:
  const std::string name_;
  const std::string help_;
};

using LocalCommands = std::vector<std::unique_ptr<LocalCommand>>;

[[nodiscard]] LocalCommands localCommands();

// One function for each group; they add to @p commands.
void addMasterCommands(LocalCommands& commands);
void addAgentCommand(LocalCommands& commands);
void addShellCommand(LocalCommands& commands);
void addCompletionCommand(LocalCommands& commands);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_APP_LOCAL_COMMAND_H_
