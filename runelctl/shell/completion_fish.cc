// SPDX-License-Identifier: Apache-2.0
// The script for fish.
#include <string>
#include <vector>

#include "shell/completion.h"

namespace zell::ctl {
namespace {

std::string inQuotes(const std::string& text) {
  std::string result = "'";
  for (const char byte : text) {
    if (byte == '\'' || byte == '\\') {
      result += '\\';
    }
    result += byte;
  }
  return result + "'";
}

std::string value(const OptionRow& row) {
  switch (row.value) {
    case Value::none:
      return "";
    case Value::oneOf: {
      std::string list;
      for (const std::string& word : row.words) {
        list += (list.empty() ? "" : " ") + word;
      }
      return " -x -a " + inQuotes(list);
    }
    case Value::file:
      return " -F";
    case Value::device:
      return " -x -a '(__runelctl_devices)'";
    default:
      return " -x";
  }
}

std::string options(const std::string& start, const std::vector<OptionRow>& rows) {
  std::string text;
  for (const OptionRow& row : rows) {
    text += start;
    for (const std::string& name : row.names) {
      const bool longName = name.compare(0, 2, "--") == 0;
      text += longName ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    text +=
        (row.value == Value::file ? " -r" : "") + value(row) + " -d " + inQuotes(row.help) + "\n";
  }
  return text;
}

}  // namespace

std::string fishCompletion(const Tables& tables) {
  std::string names;
  std::string each;
  for (const CommandRow& row : tables.commands) {
    names += " " + row.name;
    const std::string start =
        "complete -c runelctl -n '__fish_seen_subcommand_from " + row.name + "'";
    each += "complete -c runelctl -n 'not __fish_seen_subcommand_from $__runelctl_commands' -a " +
            row.name + " -d " + inQuotes(row.help) + "\n";
    each += options(start, row.options);
    for (const OptionRow& argument : row.arguments) {
      if (argument.value == Value::file || argument.value == Value::oneOf) {
        each += start + value(argument) + "\n";
      }
    }
  }
  return "# Completion of runelctl for fish, written by \"runelctl completion fish\".\n"
         "set -g __runelctl_commands" +
         names +
         "\n"
         "function __runelctl_devices\n"
         "  for name in (runelctl devices --names 2>/dev/null)\n"
         "    echo @$name\n"
         "  end\n"
         "end\n"
         "complete -c runelctl -f\n" +
         options("complete -c runelctl", tables.options) + each;
}

}  // namespace zell::ctl
