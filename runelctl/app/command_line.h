// SPDX-License-Identifier: Apache-2.0
// What was typed: the options that every command knows, the command and its arguments.
#ifndef ZELL_RUNELCTL_APP_COMMAND_LINE_H_
#define ZELL_RUNELCTL_APP_COMMAND_LINE_H_

#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "app/local_command.h"
#include "commands/command.h"
#include "commands/settings.h"

namespace zell::ctl {

/// One command line, read. Made anew for each one.
class CommandLine {
 public:
  CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  /// Reads @p words, without the program's name. An exit status when there is nothing left to do:
  /// 0 after help was shown, 2 after a complaint; below 0 when `command` or `local` is to be run.
  [[nodiscard]] int parse(std::vector<std::string> words);

  /// The targets as they were given, in `settings`. The reason when they cannot be had.
  [[nodiscard]] std::string readTargets();

  Settings& settings() { return settings_; }
  [[nodiscard]] Command* command() const { return command_; }
  [[nodiscard]] LocalCommand* local() const { return local_; }
  CLI::App& app() { return app_; }

 private:
  void defineWhere();
  void defineManner();
  void defineMany();
  template <typename Kind>
  void defineCommands(std::vector<std::unique_ptr<Kind>>& commands, Kind*& chosen,
                      const std::string& group);
  [[nodiscard]] std::string checkChosen();

  CLI::App app_{"Run tasks of runeld on one or many devices", "runelctl"};
  Settings settings_;
  std::vector<std::string> devices_;
  std::string devicesFile_;
  bool prefix_ = false;
  bool group_ = false;
  Commands commands_;
  LocalCommands locals_;
  Command* command_ = nullptr;
  LocalCommand* local_ = nullptr;
};

/// Tells on standard error what was wrong with a command line.
void complain(const std::string& what);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_APP_COMMAND_LINE_H_
