// SPDX-License-Identifier: Apache-2.0
// The commands and options there are, as lists: for whoever completes what somebody types.
#ifndef ZELL_RUNELCTL_APP_TABLES_H_
#define ZELL_RUNELCTL_APP_TABLES_H_

#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace zell::ctl {

/// What can be typed for a value or an argument.
enum class Value {
  none,      ///< nothing: the option is all
  any,       ///< anything
  oneOf,     ///< one of a few words
  file,      ///< a path of this host
  device,    ///< an address, or the name of a device at the master
  remote,    ///< a path of the device
  programs,  ///< a program of the device and its arguments
};

struct OptionRow {
  std::vector<std::string> names;  ///< with their dashes
  std::string help;
  std::string placeholder;  ///< what help calls its value
  Value value = Value::none;
  std::vector<std::string> words;  ///< for Value::oneOf
};

struct CommandRow {
  std::string name;
  std::string help;
  std::vector<OptionRow> options;
  std::vector<OptionRow> arguments;  ///< without names; the last one stands for all that follow it
};

/// The options that all commands know, and each command with its own.
struct Tables {
  std::vector<OptionRow> options;
  std::vector<CommandRow> commands;

  /// Nothing when there is none of that name.
  [[nodiscard]] const CommandRow* command(const std::string& name) const;
  /// The option @p name of @p command (nothing for none), or of all commands.
  [[nodiscard]] const OptionRow* option(const CommandRow* command, const std::string& name) const;
};

/// Reads them from the command line's own definition. What help does not show is left out.
[[nodiscard]] Tables readTables(CLI::App& app);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_APP_TABLES_H_
