// SPDX-License-Identifier: Apache-2.0
#include "cli/tables.h"

#include <algorithm>
#include <cstddef>
#include <sstream>

#include <CLI/CLI.hpp>

#include "output/text.h"

namespace runelctl {
namespace {

// The words between the braces of "WHEN:{always,auto,never}"; empty without braces.
std::vector<std::string> wordsIn(const std::string& type) {
  std::vector<std::string> words;
  const std::size_t open = type.find('{');
  const std::size_t close = type.find('}', open);
  if (open != std::string::npos && close != std::string::npos) {
    std::istringstream list(type.substr(open + 1, close - open - 1));
    std::string word;
    while (std::getline(list, word, ',')) {
      words.push_back(word);
    }
  }
  return words;
}

Value valueOf(const std::string& placeholder) {
  if (placeholder == "DEVICE" || placeholder == "GROUP") {
    return placeholder == "DEVICE" ? Value::device : Value::group;
  }
  const bool file = placeholder == "FILE" || placeholder == "PATH" || placeholder == "DIR";
  return file ? Value::file : Value::any;
}

OptionRow optionRow(const CLI::Option& option) {
  OptionRow row;
  for (const std::string& name : option.get_snames()) {
    row.names.push_back("-" + name);
  }
  for (const std::string& name : option.get_lnames()) {
    row.names.push_back("--" + name);
  }
  row.help = option.get_description();
  if (option.get_items_expected_max() > 0) {
    const std::string type = option.get_type_name();
    row.words = wordsIn(type);
    row.placeholder = type.substr(0, type.find(':'));
    row.value = row.words.empty() ? valueOf(row.placeholder) : Value::oneOf;
  }
  return row;
}

// The name of an argument in the help determines its kind.
Value argumentOf(const std::string& name) {
  if (startsWith(name, "LOCAL")) {
    return Value::file;
  }
  if (name == "PROGRAM") {
    return Value::programs;
  }
  for (const char* start : {"PATH", "REMOTE", "FROM", "TO"}) {
    if (startsWith(name, start)) {
      return Value::remote;
    }
  }
  return Value::any;
}

OptionRow argumentRow(const CLI::Option& option) {
  OptionRow row = optionRow(option);
  row.placeholder = option.get_name(true);
  row.value = row.words.empty() ? argumentOf(row.placeholder) : Value::oneOf;
  return row;
}

// A list of local and remote paths is one option of the library. Its help has the form
// "LOCAL... REMOTE" or "REMOTE... LOCAL", with a remark in parentheses. The last path is of the
// other kind.
void addArguments(const CLI::Option& option, std::vector<OptionRow>& arguments) {
  OptionRow row = argumentRow(option);
  const std::size_t dots = row.help.find("... ");
  if (dots == std::string::npos) {
    arguments.push_back(std::move(row));
    return;
  }
  row.placeholder = row.help.substr(0, dots);
  row.value = argumentOf(row.placeholder);
  arguments.push_back(row);
  row.placeholder = row.help.substr(0, row.help.find(" ("));
  row.value = Value::fileOrRemote;
  arguments.push_back(std::move(row));
}

void readOptions(CLI::App& app, std::vector<OptionRow>& rows, std::vector<OptionRow>& arguments) {
  for (const CLI::Option* option : app.get_options()) {
    const bool help = option == app.get_help_ptr() && app.get_parent() != nullptr;
    if (option->get_group().empty() || help) {
      continue;
    }
    if (option->get_positional()) {
      addArguments(*option, arguments);
    } else {
      rows.push_back(optionRow(*option));
    }
  }
}

CommandRow commandRow(CLI::App& sub) {
  CommandRow row{sub.get_name(), sub.get_description(), {}, {}};
  readOptions(sub, row.options, row.arguments);
  for (CLI::App* nested : sub.get_subcommands([](CLI::App*) { return true; })) {
    row.commands.push_back(commandRow(*nested));
  }
  return row;
}

const CommandRow* findCommand(const std::vector<CommandRow>& rows, const std::string& name) {
  const auto found = std::find_if(rows.begin(), rows.end(),
                                  [&](const CommandRow& row) { return row.name == name; });
  return found == rows.end() ? nullptr : &*found;
}

const OptionRow* find(const std::vector<OptionRow>& rows, const std::string& name) {
  const auto found = std::find_if(rows.begin(), rows.end(), [&](const OptionRow& row) {
    return std::find(row.names.begin(), row.names.end(), name) != row.names.end();
  });
  return found == rows.end() ? nullptr : &*found;
}

}  // namespace

const CommandRow* CommandRow::subcommand(const std::string& word) const {
  return findCommand(commands, word);
}

const CommandRow* Tables::command(const std::string& name) const {
  return findCommand(commands, name);
}

const OptionRow* Tables::option(const CommandRow* command, const std::string& name) const {
  const OptionRow* own = command != nullptr ? find(command->options, name) : nullptr;
  return own != nullptr ? own : find(options, name);
}

Tables readTables(CLI::App& app) {
  Tables tables;
  std::vector<OptionRow> none;
  readOptions(app, tables.options, none);
  for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) {
    if (!sub->get_group().empty()) {
      tables.commands.push_back(commandRow(*sub));
    }
  }
  return tables;
}

}  // namespace runelctl
