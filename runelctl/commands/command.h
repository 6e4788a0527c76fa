// SPDX-License-Identifier: Apache-2.0
// A subcommand that runs on devices: its name, its arguments and its job.
#ifndef RUNELCTL_COMMANDS_COMMAND_H_
#define RUNELCTL_COMMANDS_COMMAND_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands/job.h"

namespace CLI {
class App;
}  // namespace CLI

namespace runelctl {

/// Holds the arguments of one command line. Create a new object for each command line.
class Command {
 public:
  Command(std::string name, std::string help) : name_(std::move(name)), help_(std::move(help)) {}
  virtual ~Command() = default;
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] const std::string& help() const { return help_; }

  /// Registers options and arguments with @p app, to be stored in this object.
  virtual void define(CLI::App& app) = 0;
  /// Checks the arguments beyond the checks of @p app. Returns the error, empty for none.
  virtual std::string check(const Settings& settings) {
    (void)settings;
    return "";
  }
  /// Examines the local files of the command, once for all devices. Returns the error, if any.
  [[nodiscard]] virtual std::optional<Error> prepare() { return std::nullopt; }
  [[nodiscard]] virtual std::unique_ptr<Job> job(JobContext context) = 0;
  /// True for a command that needs a confirmation on several devices.
  [[nodiscard]] virtual bool destructive() const { return false; }
  /// The limit of the program that the command runs, in seconds, 0 for none. Nothing for a command
  /// whose program the user does not choose, and for one without a program.
  [[nodiscard]] virtual std::optional<int> programLimit(const Settings& settings) const {
    (void)settings;
    return std::nullopt;
  }
  /// The time that the options of the command allow on a device, in seconds, 0 without such an
  /// option. The default of --deadline is longer.
  [[nodiscard]] virtual double allowedTime(const Settings& settings) const {
    return programLimit(settings).value_or(0);
  }
  /// True for a command whose time depends on the amount of data.
  [[nodiscard]] virtual bool transfers() const { return false; }
  /// What reports call the command; with its subcommand, if it has any.
  [[nodiscard]] virtual std::string task() const { return name_; }
  /// True for a command that passes on output while a program runs.
  [[nodiscard]] virtual bool streams() const { return false; }
  /// True for a command whose dry run asks the device and lists the changes.
  [[nodiscard]] virtual bool plans() const { return false; }
  /// True for a command that runs on one device after the other by default.
  [[nodiscard]] virtual bool sequential() const { return false; }

 private:
  const std::string name_;
  const std::string help_;
};

using Commands = std::vector<std::unique_ptr<Command>>;

/// All commands that run on devices.
[[nodiscard]] Commands deviceCommands();

// One function for each group. Each adds to @p commands.
void addTaskCommands(Commands& commands);
void addFileCommands(Commands& commands);
void addTransferCommands(Commands& commands);
void addProgramCommands(Commands& commands);
void addJobCommands(Commands& commands);
void addDeviceCommands(Commands& commands);
void addRestartCommands(Commands& commands);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_COMMAND_H_
