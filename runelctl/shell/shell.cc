// SPDX-License-Identifier: Apache-2.0
#include "shell/shell.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <runel/records.h>

#include "cli/command_line.h"
#include "client/core/paths.h"
#include "output/standard_output.h"
#include "output/text.h"
#include "shell/line_editor.h"
#include "shell/names.h"
#include "shell/remote_directory.h"

namespace runelctl {
namespace {

// Timeout for the requests of a completion.
constexpr runel::Milliseconds kListTime{3000};

const char* const kOwn[] = {"cd", "exit", "help", "lcd", "pwd", "quit"};

// In the user's state directory; empty without a home directory.
std::string historyFile() {
  const char* state = std::getenv("XDG_STATE_HOME");
  const char* home = std::getenv("HOME");
  std::string directory = state != nullptr && *state == '/' ? state : "";
  if (directory.empty() && home != nullptr && *home == '/') {
    directory = std::string(home) + "/.local/state";
  }
  if (directory.empty()) {
    return "";
  }
  std::error_code ignored;  // on failure there is no history
  std::filesystem::create_directories(directory + "/runelctl", ignored);
  return directory + "/runelctl/history";
}

std::vector<DirectoryEntry> listLocal(const std::string& directory) {
  std::vector<DirectoryEntry> entries;
  std::error_code wrong;
  for (auto it = std::filesystem::directory_iterator(directory, wrong);
       !wrong && it != std::filesystem::directory_iterator(); it.increment(wrong)) {
    std::error_code unknown;
    entries.push_back({it->path().filename().string(), it->is_directory(unknown)});
  }
  return entries;
}

}  // namespace

Shell::Shell(const Settings& settings, const Style& style)
    : style_(style), session_{loop_, nullptr, settings}, before_("/") {
  loop_.setResolver(runel::blockingResolver());
  session_.settings.directory = "/";
  session_.settings.retryFailed.clear();
  session_.settings.programLimitGiven = false;  // it applies to the lines with a program
  if (targets().size() == 1) {
    device_.emplace(loop_, targets().front(), settings.limits(targets().front()));
    session_.device = &*device_;
  }
}

int Shell::run() {
  if (isatty(STDIN_FILENO) == 1 && style_.outTerminal) {
    readTerminal();
  } else {
    readPipe();
  }
  return status_;
}

void Shell::readTerminal() {
  CommandLine line;
  const Completer completer(readTables(line.app()), {std::begin(kOwn), std::end(kOwn)},
                            {[this](const std::string& directory) { return list(directory); },
                             listLocal, [this] { return deviceNames(session_.settings); },
                             [this] { return groupNames(session_.settings); }});
  LineEditor editor(historyFile(),
                    [&](const std::string& before) { return completer.complete(before); });
  std::string text;
  while (!over_) {
    const LineEditor::Got got = editor.read(prompt(), text);
    if (got == LineEditor::Got::end) {
      return;
    }
    if (got == LineEditor::Got::line) {
      runLine(text);
    }
  }
}

void Shell::readPipe() {
  std::string text;
  while (!over_ && std::getline(std::cin, text)) {
    runLine(text);
  }
}

void Shell::runLine(const std::string& text) {
  const Line line = cutLine(text);
  if (line.open) {
    complain("unterminated quote or escape");
    status_ = kExitUsage;
  } else if (!line.words.empty() && !runOwn(line.words)) {
    status_ = runCommand(line.words);
  }
}

bool Shell::runOwn(const std::vector<std::string>& words) {
  const std::string& name = words.front();
  if (name == "cd") {
    status_ = changeDirectory(words);
  } else if (name == "lcd") {
    status_ = changeLocalDirectory(words);
  } else if (name == "pwd") {
    status_ = writeOut(style_, style_.name(directory()) + "\n") ? 0 : kExitTaskFailed;
  } else if (name == "exit" || name == "quit") {
    status_ = leave(words);
  } else if (name == "help") {
    status_ = runCommand({"--help"});
    (void)writeOut(style_, "Shell commands: cd [DIRECTORY], pwd, lcd [DIRECTORY], exit [STATUS]\n");
  } else {
    return false;
  }
  return true;
}

int Shell::leave(const std::vector<std::string>& words) {
  over_ = true;
  return words.size() > 1 ? static_cast<int>(std::strtol(words[1].c_str(), nullptr, 10) & 255)
                          : status_;
}

// With several devices the directory is not checked: it may be missing on some of them.
int Shell::changeDirectory(const std::vector<std::string>& words) {
  std::string wanted = words.size() > 1 ? words[1] : "/";
  wanted = wanted == "-" ? before_ : runel::joinPath(directory(), wanted);
  if (words.size() > 2) {
    complain("cd: too many arguments");
    return kExitUsage;
  }
  if (device_ && !session_.settings.dryRun) {
    const runel::Reply real = ask({"realpath", wanted});
    const runel::Reply about = real.ok() ? ask({"stat", real.output()}) : real;
    const std::optional<runel::Stat> st =
        about.ok() ? runel::parseStat(about.output()) : std::nullopt;
    if (!about.ok() || !st || !st->isDirectory()) {
      complain(about.ok() ? wanted + ": " + runel::systemText(ENOTDIR)
                          : about.error(wanted).text());
      return about.answered() ? kExitTaskFailed : exitStatusOf(about);
    }
    wanted = real.output();
  }
  before_ = std::exchange(session_.settings.directory, wanted);
  session_.settings.runThere = true;
  return 0;
}

int Shell::changeLocalDirectory(const std::vector<std::string>& words) {
  const char* home = std::getenv("HOME");
  const std::string wanted = words.size() > 1 ? words[1] : (home != nullptr ? home : "/");
  if (chdir(wanted.c_str()) != 0) {
    complain(localError(wanted, errno).what);
    return kExitTaskFailed;
  }
  return 0;
}

int Shell::runCommand(const std::vector<std::string>& words) {
  if (words.front() == "shell") {
    complain("shell: already running");
    return kExitUsage;
  }
  loop_.turn(runel::Milliseconds(0));  // detect a closed connection
  return runCommandLine(session_, words);
}

runel::Reply Shell::ask(const std::vector<std::string>& task) {
  return askAndWait(*device_, runel::Request(task), device_->options().ioTimeout());
}

std::vector<DirectoryEntry> Shell::list(const std::string& directory) {
  if (!device_ || session_.settings.dryRun) {
    return {};
  }
  return listRemote(*device_, session_.settings.remote(directory), kListTime);
}

std::string Shell::prompt() const {
  const std::string who =
      targets().size() == 1 ? targets().front().name() : countText(targets().size(), "device");
  return terminalSafe(who) + ":" + terminalSafe(directory()) + "> ";
}

}  // namespace runelctl
