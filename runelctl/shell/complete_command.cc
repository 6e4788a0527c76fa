// SPDX-License-Identifier: Apache-2.0
// The hidden command `complete`, which the completion scripts call for names that only a file, the
// master or a device knows.
#include <algorithm>
#include <csignal>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "base/unique_fd.h"
#include "cli/command_line.h"
#include "cli/local_command.h"
#include "output/standard_output.h"
#include "output/text.h"
#include "shell/completer.h"
#include "shell/names.h"
#include "shell/remote_directory.h"

namespace runelctl {
namespace {

constexpr runel::Milliseconds kCompletionTime{2000};

// The options that decide which device answers.
const std::vector<std::string>& selectingOptions() {
  static const std::vector<std::string> kNames{
      "-d",        "--device",     "--devices", "-g",          "--device-group", "-a",
      "--all",     "-x",           "--except",  "--inventory", "--tag",          "--master-socket",
      "--gateway", "--token-file", "--ca-file", "--cert-file", "--key-file"};
  return kNames;
}

// An error must not appear in the line that is typed, and nothing may block it: name services and
// file systems can do so for longer than any timeout of the loop.
void stayQuiet() {
  const zell::UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  (void)dup2(null.get(), STDERR_FILENO);  // on failure, the scripts discard the errors
  struct sigaction action {};
  action.sa_handler = [](int) { _exit(0); };
  (void)sigaction(SIGALRM, &action, nullptr);  // the arguments are valid
  itimerval limit{};
  limit.it_value.tv_sec = kCompletionTime.count() / 1000;
  (void)setitimer(ITIMER_REAL, &limit, nullptr);
}

bool takesProgram(const CommandRow& command) {
  return !command.arguments.empty() && command.arguments.front().value == Value::programs;
}

// The options among @p words that select devices, with their values.
std::vector<std::string> selectionIn(const Tables& tables, const std::vector<std::string>& words) {
  std::vector<std::string> kept;
  const CommandRow* command = nullptr;
  for (std::size_t i = 0; i < words.size() && words[i] != "--"; ++i) {
    const std::string name = words[i].substr(0, words[i].find('='));
    if (!startsWith(name, "-")) {
      if (command != nullptr && takesProgram(*command)) {
        return kept;  // the further words belong to the program
      }
      if (command == nullptr) {
        command = tables.command(name);
      } else if (command->subcommand(name) != nullptr) {
        command = command->subcommand(name);
      }
      continue;
    }
    const OptionRow* option = tables.option(command, name);
    const bool hasNext = option != nullptr && option->value != Value::none && name == words[i];
    const auto& known = selectingOptions();
    const bool complete = !hasNext || i + 1 < words.size();
    if (complete && std::find(known.begin(), known.end(), name) != known.end()) {
      kept.insert(kept.end(), words.begin() + static_cast<std::ptrdiff_t>(i),
                  words.begin() + static_cast<std::ptrdiff_t>(i + (hasNext ? 2 : 1)));
    }
    i += hasNext ? 1 : 0;
  }
  return kept;
}

class CompleteCommand : public LocalCommand {
 public:
  CompleteCommand() : LocalCommand("complete", "print names for a completion script") {}

  void define(CLI::App& app) override {
    app.add_option("KIND", kind_)
        ->required()
        ->check(CLI::IsMember({"devices", "groups", "remote"}));
    app.add_option("LINE", line_)->required();
    app.add_option("WORD", word_);
  }
  [[nodiscard]] bool hidden() const override { return true; }

  int run(const Settings& settings, const Style& style) override {
    (void)settings;
    stayQuiet();
    Line line = cutLine(line_);
    std::string word;
    if (line.inWord) {
      word = line.words.back();
      line.words.pop_back();
    }
    line.words.erase(line.words.begin(), line.words.begin() + (line.words.empty() ? 0 : 1));
    CommandLine probe;
    std::vector<std::string> words = selectionIn(readTables(probe.app()), line.words);
    words.insert(words.end(), {"fileexists", "/"});
    if (probe.parse(words) < 0) {
      print(namesFor(probe, word), word, style);
    }
    return 0;
  }

 private:
  std::vector<std::string> namesFor(CommandLine& probe, const std::string& word) const {
    if (kind_ == "devices") {
      return deviceNames(probe.settings());
    }
    if (kind_ == "groups") {
      return groupNames(probe.settings());
    }
    return probe.readTargets() ? remotePaths(probe.settings(), word) : std::vector<std::string>();
  }

  // Of several devices, the first one answers.
  static std::vector<std::string> remotePaths(const Settings& settings, const std::string& word) {
    runel::Loop loop;
    loop.setResolver(runel::blockingResolver());
    const runel::Address& target = settings.targets.front();
    runel::AsyncDevice device(loop, target, settings.limits(target));
    return completePath(
        [&](const std::string& directory) {
          return listRemote(device, directory, kCompletionTime);
        },
        word);
  }

  // bash replaces only the part of the word after the last ':' or '='.
  void print(const std::vector<std::string>& names, const std::string& whole,
             const Style& style) const {
    const bool part = whole.size() > word_.size() &&
                      whole.compare(whole.size() - word_.size(), std::string::npos, word_) == 0;
    const std::size_t begin = part && !word_.empty() ? whole.size() - word_.size() : 0;
    std::string text;
    for (const std::string& name : names) {
      text += kind_ == "remote" ? name.substr(std::min(begin, name.size())) : name;
      text += '\n';
    }
    (void)writeOut(style, text);  // a closed pipe ends the process by SIGPIPE
  }

  std::string kind_;
  std::string line_;
  std::string word_;
};

}  // namespace

void addCompleteCommand(LocalCommands& commands) {
  commands.push_back(std::make_unique<CompleteCommand>());
}

}  // namespace runelctl
