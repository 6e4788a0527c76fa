// SPDX-License-Identifier: Apache-2.0
// A subcommand: its name, its arguments, its work on a device.
#ifndef ZELL_RUNELCTL_COMMANDS_COMMAND_H_
#define ZELL_RUNELCTL_COMMANDS_COMMAND_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands/job.h"

namespace CLI {
class App;
}  // namespace CLI

namespace zell::ctl {

/// Made anew for each command line: it holds the arguments that were given.
class Command {
 public:
  Command(std::string name, std::string help) : name_(std::move(name)), help_(std::move(help)) {}
  virtual ~Command() = default;
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] const std::string& help() const { return help_; }

  /// Tells @p app about options and arguments, which are to be stored here.
  virtual void define(CLI::App& app) = 0;
  /// What is wrong with the arguments beyond what @p app could see; empty when nothing is.
  virtual std::string check(const Settings& settings) {
    (void)settings;
    return "";
  }
  /// Looks at what of this host the command is about, once. What is wrong with it.
  [[nodiscard]] virtual std::optional<Error> prepare() { return std::nullopt; }
  [[nodiscard]] virtual std::unique_ptr<Job> job(JobContext context) = 0;
  /// True for what cannot be had back: asked for before it is done to several devices.
  [[nodiscard]] virtual bool takesAway() const { return false; }
  /// True for what goes one device after the other unless told otherwise.
  [[nodiscard]] virtual bool oneAtATime() const { return false; }

 private:
  const std::string name_;
  const std::string help_;
};

using Commands = std::vector<std::unique_ptr<Command>>;

/// Everything that runs on devices.
[[nodiscard]] Commands deviceCommands();

// One function for each group; they add to @p commands.
void addTaskCommands(Commands& commands);
void addFileCommands(Commands& commands);
void addTransferCommands(Commands& commands);
void addProgramCommands(Commands& commands);
void addDeviceCommands(Commands& commands);
void addRestartCommands(Commands& commands);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_COMMAND_H_
