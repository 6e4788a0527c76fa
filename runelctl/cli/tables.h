// SPDX-License-Identifier: Apache-2.0
// All commands and options as tables, for completion.
#ifndef RUNELCTL_CLI_TABLES_H_
#define RUNELCTL_CLI_TABLES_H_

#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace runelctl {

/// The kind of a value or an argument.
enum class Value {
  none,          ///< the option has no value
  any,           ///< any text
  oneOf,         ///< one of a list of words
  file,          ///< a local path
  device,        ///< an address, a name of the inventory, or @NAME of a device at the master
  group,         ///< a group of the inventory
  remote,        ///< a remote path
  programs,      ///< a remote program and its arguments
  fileOrRemote,  ///< a local or a remote path, by its place among the arguments
};

struct OptionRow {
  std::vector<std::string> names;  ///< with leading dashes
  std::string help;
  std::string placeholder;  ///< the name of the value in the help
  Value value = Value::none;
  std::vector<std::string> words;  ///< for Value::oneOf
};

struct CommandRow {
  std::string name;
  std::string help;
  std::vector<OptionRow> options;
  std::vector<OptionRow> arguments;    ///< without names; the last one may repeat
  std::vector<CommandRow> commands{};  ///< its subcommands; it has no arguments then

  /// The subcommand @p word, nullptr for another word.
  [[nodiscard]] const CommandRow* subcommand(const std::string& word) const;
};

/// The general options, and each command with its options.
struct Tables {
  std::vector<OptionRow> options;
  std::vector<CommandRow> commands;

  /// nullptr for an unknown name.
  [[nodiscard]] const CommandRow* command(const std::string& name) const;
  /// The option @p name of @p command (may be nullptr), or the general option of that name.
  [[nodiscard]] const OptionRow* option(const CommandRow* command, const std::string& name) const;
};

/// Reads the tables from the definition of the command line. Omits what the help does not show.
[[nodiscard]] Tables readTables(CLI::App& app);

}  // namespace runelctl

#endif  // RUNELCTL_CLI_TABLES_H_
