// SPDX-License-Identifier: Apache-2.0
// The script for zsh.
#include <cstddef>
#include <string>
#include <vector>

#include "shell/completion.h"

namespace zell::ctl {
namespace {

// @p text inside single quotes, with backslashes before the bytes of @p special.
std::string escaped(const std::string& text, const std::string& special) {
  std::string result;
  for (const char byte : text) {
    if (byte == '\'') {
      result += "'\\''";
      continue;
    }
    if (special.find(byte) != std::string::npos) {
      result += '\\';
    }
    result += byte;
  }
  return result;
}

std::string action(Value value, const std::vector<std::string>& words) {
  switch (value) {
    case Value::oneOf: {
      std::string list;
      for (const std::string& word : words) {
        list += (list.empty() ? "" : " ") + word;
      }
      return "(" + list + ")";
    }
    case Value::file:
      return "_files";
    case Value::device:
      return "_runelctl_devices";
    default:
      return "()";  // nothing that this host knows
  }
}

// Each name by itself, and as often as wanted: what excludes what, the command itself knows.
std::string specs(const std::vector<OptionRow>& rows) {
  std::string text;
  for (const OptionRow& row : rows) {
    for (const std::string& name : row.names) {
      text += "    '*" + name + "[" + escaped(row.help, "[]:\\") + "]";
      if (row.value != Value::none) {
        text += ":" + escaped(row.placeholder, ":\\") + ":" + action(row.value, row.words);
      }
      text += "'\n";
    }
  }
  return text;
}

std::string arguments(const CommandRow& row) {
  std::string text;
  for (std::size_t i = 0; i < row.arguments.size(); ++i) {
    const bool last = i + 1 == row.arguments.size();
    const std::string place = last ? "*" : std::to_string(i + 1);
    text += " '" + place + ":" + escaped(row.arguments[i].placeholder, ":\\") + ":" +
            action(row.arguments[i].value, row.arguments[i].words) + "'";
  }
  return text;
}

}  // namespace

std::string zshCompletion(const Tables& tables) {
  std::string list;
  std::string branches;
  for (const CommandRow& row : tables.commands) {
    list += "    '" + row.name + ":" + escaped(row.help, ":\\") + "'\n";
    branches += "        " + row.name + ")\n          own=(\n" + specs(row.options) +
                "          )\n          _arguments -s \"${own[@]}\" \"${general[@]}\"" +
                arguments(row) + " ;;\n";
  }
  return "#compdef runelctl\n"
         "# Completion of runelctl for zsh, written by \"runelctl completion zsh\".\n"
         "_runelctl_devices() {\n"
         "  local -a names\n"
         "  names=(${(f)\"$(runelctl devices --names 2>/dev/null)\"})\n"
         "  compadd -- @${^names}\n"
         "}\n"
         "_runelctl() {\n"
         "  local curcontext=$curcontext state line\n"
         "  local -a general own commands\n"
         "  general=(\n" +
         specs(tables.options) +
         "  )\n"
         "  commands=(\n" +
         list +
         "  )\n"
         "  _arguments -C -s -A '-*' \"${general[@]}\" '1:command:->command' '*::argument:->rest'\n"
         "  case $state in\n"
         "    command) _describe -t commands command commands ;;\n"
         "    rest)\n"
         "      case $words[1] in\n" +
         branches +
         "      esac ;;\n"
         "  esac\n"
         "}\n"
         "if [[ $funcstack[1] == _runelctl ]]; then\n"
         "  _runelctl \"$@\"\n"
         "else\n"
         "  compdef _runelctl runelctl\n"
         "fi\n";
}

}  // namespace zell::ctl
