// SPDX-License-Identifier: Apache-2.0
// The script for bash.
#include <string>
#include <vector>

#include "shell/completion.h"

namespace zell::ctl {
namespace {

std::string joined(const std::vector<std::string>& words, const std::string& between) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : between) + word;
  }
  return text;
}

// The names of all options that take a value and pass @p wanted, as a pattern of `case`.
template <typename Wanted>
std::string pattern(const std::vector<OptionRow>& rows, const Wanted& wanted) {
  std::vector<std::string> names;
  for (const OptionRow& row : rows) {
    if (row.value != Value::none && wanted(row)) {
      names.insert(names.end(), row.names.begin(), row.names.end());
    }
  }
  return joined(names, "|");
}

std::string names(const std::vector<OptionRow>& rows) {
  std::vector<std::string> all;
  for (const OptionRow& row : rows) {
    all.insert(all.end(), row.names.begin(), row.names.end());
  }
  return joined(all, " ");
}

// One branch for each option of @p rows with a value, for the command @p name.
std::string valueBranches(const std::string& name, const std::vector<OptionRow>& rows) {
  std::string text;
  for (const OptionRow& row : rows) {
    if (row.value == Value::none) {
      continue;
    }
    text += "    " + name + ":" + joined(row.names, "|" + name + ":") + ") ";
    switch (row.value) {
      case Value::oneOf:
        text += "_runelctl_words '" + joined(row.words, " ") + "'";
        break;
      case Value::file:
        text += "_runelctl_files";
        break;
      case Value::device:
        text += "_runelctl_devices";
        break;
      default:
        text += "COMPREPLY=()";
    }
    text += "; return ;;\n";
  }
  return text;
}

// What stands for the arguments of @p row, where this host knows what they can be.
std::string argumentBranch(const CommandRow& row) {
  for (const OptionRow& argument : row.arguments) {
    if (argument.value == Value::file) {
      return "    " + row.name + ":*) _runelctl_files ;;\n";
    }
    if (argument.value == Value::oneOf) {
      return "    " + row.name + ":*) _runelctl_words '" + joined(argument.words, " ") + "' ;;\n";
    }
  }
  return "";
}

// The helpers of the script. '@' ends a word for bash: what follows it comes alone.
const char* const kHelpers = R"(_runelctl_words() {
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word")
}
_runelctl_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$word")
}
_runelctl_devices() {
  local names
  names=$(runelctl devices --names 2>/dev/null)
  if [[ $word == @ ]]; then
    word=
  elif [[ $word == '' && $previous != @ ]]; then
    names=${names:+$(printf '@%s ' $names)}
  fi
  mapfile -t COMPREPLY < <(compgen -W "$names" -- "$word")
}
)";

}  // namespace

std::string bashCompletion(const Tables& tables) {
  const auto any = [](const OptionRow&) { return true; };
  std::string values;
  std::string words;
  std::string commands;
  for (const CommandRow& row : tables.commands) {
    commands += (commands.empty() ? "" : " ") + row.name;
    values += valueBranches(row.name, row.options);
    const std::string own = names(row.options);
    words += "    " + row.name + ":-*) _runelctl_words '" + own + " '\"$general\" ;;\n";
    words += argumentBranch(row);
  }
  return "# Completion of runelctl for bash, written by \"runelctl completion bash\".\n" +
         std::string(kHelpers) +
         "_runelctl() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  local option=$previous command= i\n"
         "  local general='" +
         names(tables.options) +
         "'\n"
         "  for ((i = 1; i < COMP_CWORD; ++i)); do\n"
         "    case ${COMP_WORDS[i]} in\n"
         "      " +
         pattern(tables.options, any) +
         ")\n"
         "        ((++i))\n"
         "        [[ ${COMP_WORDS[i]} == @ ]] && ((++i)) ;;\n"
         "      -*) ;;\n"
         "      *) command=${COMP_WORDS[i]}; break ;;\n"
         "    esac\n"
         "  done\n"
         "  if [[ $word == @ ]]; then\n"
         "    option=$previous\n"
         "  elif [[ $previous == @ ]]; then\n"
         "    option=${COMP_WORDS[COMP_CWORD-2]}\n"
         "  fi\n"
         "  case $command:$option in\n" +
         values + valueBranches("*", tables.options) +
         "  esac\n"
         "  case $command:$word in\n"
         "    :-*) _runelctl_words \"$general\" ;;\n"
         "    :*) _runelctl_words '" +
         commands + "' ;;\n" + words +
         "    *) COMPREPLY=() ;;\n"
         "  esac\n"
         "}\n"
         "complete -F _runelctl runelctl\n";
}

}  // namespace zell::ctl
