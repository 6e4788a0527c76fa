// SPDX-License-Identifier: Apache-2.0
#include "shell/shell.h"

#include <algorithm>
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
#include "cli/signals.h"
#include "cli/targets.h"
#include "client/core/paths.h"
#include "output/standard_output.h"
#include "output/text.h"
#include "shell/line_editor.h"

namespace runelctl {
namespace {

// Timeout for the requests of a completion.
constexpr runel::Milliseconds kListTime{3000};
constexpr std::size_t kMostMarked = 500;

const char* const kOwn[] = {"cd", "exit", "help", "lcd", "pwd", "quit"};

// The options of the shell's command line that apply to each of its lines.
std::vector<std::string> commonOptions(const Settings& settings) {
  std::vector<std::string> words{"--io-timeout",      std::to_string(settings.ioTimeout),
                                 "--connect-timeout", std::to_string(settings.connectTimeout),
                                 "--color",           settings.colour,
                                 "--master-socket",   settings.masterSocket,
                                 "--memory",          std::to_string(settings.memory)};
  const auto flag = [&](bool given, const char* word) {
    if (given) {
      words.emplace_back(word);
    }
  };
  flag(settings.json, "--json");
  flag(settings.quiet, "--quiet");
  flag(settings.yes, "--yes");
  flag(settings.dryRun, "--dry-run");
  flag(settings.arrange == Arrange::prefix, "--prefix");
  flag(settings.arrange == Arrange::group, "--group");
  if (settings.deadline) {
    words.insert(words.end(), {"--deadline", std::to_string(*settings.deadline)});
  }
  if (settings.jobsGiven) {
    words.insert(words.end(), {"--jobs", std::to_string(settings.jobs)});
  }
  if (!settings.outputDirectory.empty()) {
    words.insert(words.end(), {"--output-dir", settings.outputDirectory});
  }
  return words;
}

bool namesDevice(const std::vector<std::string>& words) {
  return std::any_of(words.begin(), words.end(), [](const std::string& word) {
    return word == "-d" || word == "--device" || word == "--devices";
  });
}

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
    : settings_(settings),
      style_(style),
      session_{loop_, nullptr, {}, "/", settings.programLimit},
      before_("/") {
  loop_.setResolver(runel::blockingResolver());
  session_.before = commonOptions(settings);
  for (const runel::Address& target : settings.targets) {
    where_.insert(where_.end(), {"-d", target.text()});
  }
  if (settings.targets.size() == 1) {
    // Named as in the command lines, so that they find the open connection.
    std::vector<runel::Address> same;
    std::string why;
    if (parseTargetList(where_[1], same, why)) {
      device_.emplace(loop_, same.front(), settings.limits());
      session_.device = &*device_;
    }
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
  Completer completer(
      readTables(line.app()), {std::begin(kOwn), std::end(kOwn)},
      [this](const std::string& directory) { return list(directory); }, listLocal);
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
    status_ = writeOut(style_, style_.name(session_.directory) + "\n") ? 0 : kExitTaskFailed;
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
  wanted = wanted == "-" ? before_ : runel::joinPath(session_.directory, wanted);
  if (words.size() > 2) {
    complain("cd: too many arguments");
    return kExitUsage;
  }
  if (device_ && !settings_.dryRun) {
    const runel::Reply real =
        ask(runel::Request({"realpath", wanted}), settings_.limits().ioTimeout());
    const runel::Reply about =
        real.ok() ? ask(runel::Request({"stat", real.output()}), settings_.limits().ioTimeout())
                  : real;
    const std::optional<runel::Stat> st =
        about.ok() ? runel::parseStat(about.output()) : std::nullopt;
    if (!about.ok() || !st || !st->isDirectory()) {
      complain(about.ok() ? wanted + ": " + runel::systemText(ENOTDIR)
                          : about.error(wanted).text());
      return about.answered() ? kExitTaskFailed : exitStatusOf(about);
    }
    wanted = real.output();
  }
  before_ = std::exchange(session_.directory, wanted);
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
  std::vector<std::string> whole = namesDevice(words) ? std::vector<std::string>() : where_;
  whole.insert(whole.end(), words.begin(), words.end());
  return runCommandLine(session_, whole);
}

runel::Reply Shell::ask(const runel::Request& request, runel::Milliseconds limit) {
  std::optional<runel::Reply> reply;
  bool stop = false;
  loop_.turn(runel::Milliseconds(0));  // detect a closed connection
  device_->ask(request, [&](runel::Reply answer) { reply = std::move(answer); });
  {
    const Signals signals(loop_, [&](int) { stop = true; });
    runel::Timer timer = loop_.after(limit, [&] { stop = true; });
    while (!reply && !stop) {
      loop_.turn(limit);
    }
    loop_.cancel(timer);
  }
  if (!reply) {
    device_->abandon();  // its answer would arrive after the handler is gone
    reply.emplace(runel::Error(runel::Kind::local, runel::Cause::cancelled,
                               "interrupted, or no answer in time"));
  }
  return std::move(*reply);
}

std::vector<DirectoryEntry> Shell::list(const std::string& directory) {
  std::vector<DirectoryEntry> entries;
  if (!device_ || settings_.dryRun) {
    return entries;
  }
  const std::string path = runel::joinPath(session_.directory, directory);
  const runel::Reply reply = ask(runel::Request({"readdir", path}), kListTime);
  const auto names = reply.ok() ? runel::parseNames(reply.output()) : std::nullopt;
  if (names) {
    for (const std::string& name : *names) {
      entries.push_back({name, false});
    }
    markDirectories(path, entries);
  }
  return entries;
}

// readdir returns only names: get the type of each name with pipelined requests.
void Shell::markDirectories(const std::string& directory, std::vector<DirectoryEntry>& entries) {
  if (entries.empty() || entries.size() > kMostMarked) {
    return;
  }
  for (std::size_t i = 0; i + 1 < entries.size(); ++i) {
    DirectoryEntry* entry = &entries[i];
    device_->ask(runel::Request({"stat", runel::joinPath(directory, entry->name)}),
                 [entry](const runel::Reply& reply) {
                   const auto st = reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
                   entry->directory = st && st->isDirectory();
                 });
  }
  // Answers arrive in order: after the last one, all have arrived.
  const runel::Reply last =
      ask(runel::Request({"stat", runel::joinPath(directory, entries.back().name)}), kListTime);
  const auto st = last.ok() ? runel::parseStat(last.output()) : std::nullopt;
  entries.back().directory = st && st->isDirectory();
}

std::string Shell::prompt() const {
  const std::string who = settings_.targets.size() == 1
                              ? settings_.targets.front().name()
                              : countText(settings_.targets.size(), "device");
  return terminalSafe(who) + ":" + terminalSafe(session_.directory) + "> ";
}

}  // namespace runelctl
