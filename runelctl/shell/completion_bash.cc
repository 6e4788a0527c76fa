// SPDX-License-Identifier: Apache-2.0
// The completion script for bash.
#include <cstddef>
#include <string>
#include <vector>

#include "output/text.h"
#include "shell/completion.h"

namespace runelctl {
namespace {

// The names of all options with a value, for the command @p name, as a pattern of `case`.
std::string valuePattern(const std::string& name, const std::vector<OptionRow>& rows) {
  std::string text;
  for (const OptionRow& row : rows) {
    if (row.value != Value::none) {
      text += (text.empty() ? "" : "|") + name + ":" + joined(row.names, "|" + name + ":");
    }
  }
  return text;
}

std::string names(const std::vector<OptionRow>& rows) {
  std::vector<std::string> all;
  for (const OptionRow& row : rows) {
    all.insert(all.end(), row.names.begin(), row.names.end());
  }
  return joined(all, " ");
}

// The command that offers values of @p row.
std::string offerOf(const OptionRow& row) {
  switch (row.value) {
    case Value::oneOf:
      return "_runelctl_words '" + joined(row.words, " ") + "'";
    case Value::file:
      return "_runelctl_files";
    case Value::device:
      return "_runelctl_devices";
    case Value::group:
      return "_runelctl_groups";
    case Value::remote:
    case Value::programs:
      return "_runelctl_remote";
    case Value::fileOrRemote:
      return "_runelctl_files; _runelctl_remote";
    default:
      return "COMPREPLY=()";
  }
}

// A command, and the words that name it: two for a subcommand.
struct BashCommand {
  std::string words;
  const CommandRow* row;

  // In a pattern of `case`, a blank needs a backslash.
  [[nodiscard]] std::string quoted() const {
    const std::size_t blank = words.find(' ');
    return blank == std::string::npos ? words
                                      : words.substr(0, blank) + "\\ " + words.substr(blank + 1);
  }
};

std::vector<BashCommand> withSubcommands(const Tables& tables) {
  std::vector<BashCommand> all;
  for (const CommandRow& row : tables.commands) {
    all.push_back({row.name, &row});
    for (const CommandRow& sub : row.commands) {
      all.push_back({row.name + " " + sub.name, &sub});
    }
  }
  return all;
}

std::string commandNames(const std::vector<CommandRow>& rows) {
  std::vector<std::string> all;
  for (const CommandRow& row : rows) {
    all.push_back(row.name);
  }
  return joined(all, " ");
}

// One branch of `case` for each option of @p rows with a value, for the command @p name.
std::string valueBranches(const std::string& name, const std::vector<OptionRow>& rows) {
  std::string text;
  for (const OptionRow& row : rows) {
    if (row.value == Value::none) {
      continue;
    }
    text += "    " + name + ":" + joined(row.names, "|" + name + ":") + ") " + offerOf(row) +
            "; return ;;\n";
  }
  return text;
}

// The branches of `case` for the arguments or the subcommands of @p row, whose pattern is @p name.
// The last argument may repeat.
std::string argumentBranches(const std::string& name, const CommandRow& row) {
  if (!row.commands.empty()) {
    return "    " + name + ":*) _runelctl_words '" + commandNames(row.commands) + "' ;;\n";
  }
  std::string text;
  for (std::size_t i = 0; i < row.arguments.size(); ++i) {
    const std::string place = i + 1 == row.arguments.size() ? "*" : std::to_string(i);
    text += "    " + name + ":" + place + ") " + offerOf(row.arguments[i]) + " ;;\n";
  }
  return text;
}

// The functions of the script. "runelctl complete" knows the names. '@' ends a word in bash: the
// text after it is a separate word.
const char* const kHelpers = R"sh(_runelctl_words() {
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word")
}
_runelctl_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$word")
}
_runelctl_known() {
  runelctl complete "$1" "${COMP_LINE:0:COMP_POINT}" "$word" 2>/dev/null
}
_runelctl_devices() {
  local name names=()
  while IFS= read -r name; do
    if [[ $word != @ && $previous != @ ]]; then
      names+=("$name")
    elif [[ $name == @* ]]; then
      names+=("${name#@}")
    fi
  done < <(_runelctl_known devices)
  [[ $word == @ ]] && word=
  _runelctl_words "${names[*]}"
}
_runelctl_groups() {
  _runelctl_words "$(_runelctl_known groups)"
}
_runelctl_remote() {
  local path
  compopt -o filenames 2>/dev/null
  while IFS= read -r path; do
    COMPREPLY+=("$path")
  done < <(_runelctl_known remote)
  [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]] && compopt -o nospace 2>/dev/null
}
)sh";

}  // namespace

std::string bashCompletion(const Tables& tables) {
  std::string values;
  std::string words;
  std::string withValue = valuePattern("*", tables.options);
  std::string options;
  std::string subcommands;  // that follow their command
  for (const BashCommand& command : withSubcommands(tables)) {
    const std::string name = command.quoted();
    const CommandRow& row = *command.row;
    values += valueBranches(name, row.options);
    words += argumentBranches(name, row);
    const std::string own = valuePattern(name, row.options);
    withValue += own.empty() ? "" : "|" + own;
    options += "    " + name + ":-*) _runelctl_words '" + names(row.options) +
               " '\"$general\"; return ;;\n";
    for (const CommandRow& sub : row.commands) {
      subcommands += (subcommands.empty() ? "      " : "|") + name + ":" + sub.name;
    }
  }
  return "# bash completion for runelctl, generated by \"runelctl completion bash\".\n" +
         std::string(kHelpers) +
         "_runelctl() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  local option=$previous command= place=0 i\n"
         "  local general='" +
         names(tables.options) +
         "'\n"
         "  COMPREPLY=()\n"
         "  for ((i = 1; i < COMP_CWORD; ++i)); do\n"
         "    case $command:${COMP_WORDS[i]} in\n"
         "      " +
         withValue +
         ")\n"
         "        ((++i))\n"
         "        [[ ${COMP_WORDS[i]} == [@=] ]] && ((++i))\n"
         "        while [[ ${COMP_WORDS[i+1]} == [:=@] ]]; do ((i += 2)); done ;;\n"
         "      *:-?*) ;;\n" +
         subcommands + (subcommands.empty() ? "" : ") command+=\" ${COMP_WORDS[i]}\" ;;\n") +
         "      :*) command=${COMP_WORDS[i]} ;;\n"
         "      *) ((++place)) ;;\n"
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
         "    :-*) _runelctl_words \"$general\"; return ;;\n"
         "    :*) _runelctl_words '" +
         commandNames(tables.commands) + "'; return ;;\n" + options +
         "  esac\n"
         "  case $command:$place in\n" +
         words +
         "  esac\n"
         "}\n"
         "complete -F _runelctl runelctl\n";
}

}  // namespace runelctl
