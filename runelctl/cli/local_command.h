// SPDX-License-Identifier: Apache-2.0
// Subcommands that are not executed on a device, such as the master and the shell.
#ifndef RUNELCTL_CLI_LOCAL_COMMAND_H_
#define RUNELCTL_CLI_LOCAL_COMMAND_H_

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands/settings.h"
#include "output/style.h"

namespace CLI {
class App;
}  // namespace CLI

namespace runelctl {

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

  /// The devices that the command gets in `Settings::targets`.
  enum class Devices {
    none,       ///< the selection is not read
    usual,      ///< the selected ones, or the usual ones
    inventory,  ///< the selected ones, or all of the inventory
  };
  [[nodiscard]] virtual Devices devices() const { return Devices::none; }
  /// Returns the error in the arguments, empty for none.
  virtual std::string check(const Settings& settings) {
    (void)settings;
    return "";
  }
  /// Reports that the command cannot start because of @p what, and returns the exit status for
  /// that. Nothing for a command without its own form of errors. @p json: --json is given.
  [[nodiscard]] virtual std::optional<int> refuse(const std::string& what, bool json) const {
    (void)what;
    (void)json;
    return std::nullopt;
  }
  /// Runs the command and returns the exit status.
  [[nodiscard]] virtual int run(const Settings& settings, const Style& style) = 0;
  /// True for a command that runs other commands, with its general options.
  [[nodiscard]] virtual bool runsCommands() const { return false; }
  /// True for a command that the help does not list.
  [[nodiscard]] virtual bool hidden() const { return false; }

 private:
  const std::string name_;
  const std::string help_;
};

using LocalCommands = std::vector<std::unique_ptr<LocalCommand>>;

[[nodiscard]] LocalCommands localCommands();

// One function for each group. Each adds to @p commands.
void addMasterCommands(LocalCommands& commands);
void addAgentCommand(LocalCommands& commands);
void addShellCommand(LocalCommands& commands);
void addCompletionCommand(LocalCommands& commands);
void addCompleteCommand(LocalCommands& commands);
void addInventoryCommand(LocalCommands& commands);
void addProbeCommand(LocalCommands& commands);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_LOCAL_COMMAND_H_
