// SPDX-License-Identifier: Apache-2.0
// The parsed command line: the general options, the command and its arguments.
#ifndef RUNELCTL_CLI_COMMAND_LINE_H_
#define RUNELCTL_CLI_COMMAND_LINE_H_

#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/local_command.h"
#include "cli/target_options.h"
#include "commands/command.h"
#include "commands/settings.h"

namespace runelctl {

/// Parses one command line. Create a new object for each command line.
class CommandLine {
 public:
  /// @p base has the values of the options that the command line does not give.
  explicit CommandLine(const Settings& base = Settings());
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  /// Parses @p words, without the program name. Returns an exit status when nothing is left to do:
  /// 0 after help was printed, that of `refuse` after a usage error. Returns a negative value when
  /// `command` or `local` is to be run.
  [[nodiscard]] int parse(std::vector<std::string> words);

  /// Reports that the command cannot start because of @p what, a usage error. Returns the exit
  /// status.
  [[nodiscard]] int refuse(const std::string& what) const;

  /// Selects the devices of `settings`, if the command uses devices.
  [[nodiscard]] runel::Result<void> readTargets();

  Settings& settings() { return settings_; }
  [[nodiscard]] Command* command() const { return command_; }
  [[nodiscard]] LocalCommand* local() const { return local_; }
  CLI::App& app() { return app_; }

 private:
  void defineDeviceOptions();
  void defineGatewayOptions();
  void defineGeneralOptions();
  void defineFleetOptions();
  template <typename Kind>
  void defineCommands(std::vector<std::unique_ptr<Kind>>& commands, Kind*& chosen,
                      const std::string& group);
  [[nodiscard]] std::string checkChosen();
  [[nodiscard]] const LocalCommand* namedLocal() const;

  CLI::App app_{"Run tasks of runeld on one or many devices", "runelctl"};
  Settings settings_;
  TargetOptions targets_;
  bool prefix_ = false;
  bool group_ = false;
  Commands commands_;
  LocalCommands locals_;
  Command* command_ = nullptr;
  LocalCommand* local_ = nullptr;
  bool json_ = false;  // --json is among the words, whether they are valid or not
};

/// Prints an error message on standard error.
void complain(const std::string& what);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_COMMAND_LINE_H_
