// SPDX-License-Identifier: Apache-2.0
// Every task of the daemon as a command, with the arguments of the task and its unchanged answer.
#include <cstddef>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands/command.h"
#include "commands/read_input.h"
#include "protocol/task_table.h"

namespace runelctl {
namespace {

struct TaskRow {
  const char* name;
  const char* help;
  std::vector<const char*> parameters;
  bool destructive = false;
};

// exec, stat, lstat, reboot and restart have dedicated commands with more functions.
const std::vector<TaskRow>& rows() {
  static const std::vector<TaskRow> kRows = {
      {"access",
       "test access to a path: MODE is the sum of 4 (read), 2 (write) and 1 (execute); 0 tests "
       "existence",
       {"PATH", "MODE"}},
      {"append", "append DATA to a file ('-': standard input)", {"PATH", "DATA"}},
      {"blinkleds", "set the style of the LEDs", {"STYLE"}},
      {"changeleds", "switch the two LEDs: 1 is on, any other value is off", {"FIRST", "SECOND"}},
      {"chmodx", "make a file executable for all users", {"PATH"}},
      {"devicetype", "print the device type", {}},
      {"fileexists", "test whether a path exists", {"PATH"}},
      {"freeblocks", "print the free blocks of the file system of a path", {"PATH"}},
      {"hostid", "print the device's host identifier", {}},
      {"kill", "end the background program of this connection", {}, true},
      {"processrunning", "test whether a process with this name runs", {"NAME"}},
      {"read", "print the content of a file", {"PATH"}},
      {"readdir", "list a directory, in the format of the task", {"PATH"}},
      {"realpath", "print the canonical form of a path", {"PATH"}},
      {"rename", "rename a file or directory", {"FROM", "TO"}, true},
      {"unlink", "remove a file", {"PATH"}, true},
      {"updateumstate", "store the update manager's state TEXT under KEY", {"KEY", "TEXT"}},
      {"wait", "wait for the background program of this connection", {}},
      {"walktree", "list a directory tree, in the format of the task", {"PATH"}},
      {"write", "replace the content of a file with DATA ('-': standard input)", {"PATH", "DATA"}},
  };
  return kRows;
}

// Arguments that are remote paths. Relative paths start from the shell's remote directory.
bool isPath(const std::string& parameter) {
  return parameter == "PATH" || parameter == "FROM" || parameter == "TO";
}

// On a terminal, add a missing newline at the end, so that the next prompt starts on a new line.
bool wantsNewline(const Report& report, const std::string& text) {
  return report.style().outTerminal && !text.empty() && text.back() != '\n';
}

class TaskJob : public Job {
 public:
  TaskJob(JobContext context, const TaskRow& row, std::vector<std::string> words)
      : Job(std::move(context)), row_(row), words_(std::move(words)) {}

  void start() override {
    std::vector<std::string> args{row_.name};
    args.insert(args.end(), words_.begin(), words_.end());
    ask(runel::Request(args), [this](runel::Reply reply) { show(std::move(reply)); });
  }

 private:
  void show(runel::Reply reply) {
    const Outcome outcome = outcomeOf(reply);
    // walktree may have partial output before a failure. The others have none, or a message.
    const bool text = reply.ok() || std::string(row_.name) == "walktree";
    if (reply.answered() && zell::findTask(row_.name)->text != zell::TaskText::empty &&
        (text || report().json())) {
      const std::string end = lineEnd(reply.output());
      report().output(reply.takeOutput(), end);
    }
    finish(outcome);
  }

  [[nodiscard]] Outcome outcomeOf(const runel::Reply& reply) const {
    if (reply.ok()) {
      return {};
    }
    const bool program = reply.answered() && std::string(row_.name) == "wait";
    return {program ? exitStatusOf(reply) : failureStatus(reply), reply.error(about())};
  }

  // Adds a line end to the answers that are a single value.
  [[nodiscard]] std::string lineEnd(const std::string& text) {
    const bool value = words_.empty() || std::string(row_.name) == "freeblocks" ||
                       std::string(row_.name) == "realpath";
    return value || wantsNewline(report(), text) ? "\n" : "";
  }

  static int failureStatus(const runel::Reply& reply) {
    return !reply.answered() ? exitStatusOf(reply) : kExitTaskFailed;
  }

  [[nodiscard]] std::string about() const {
    return words_.empty() ? row_.name : std::string(row_.name) + " " + words_[0];
  }

  const TaskRow& row_;
  const std::vector<std::string> words_;
};

class TaskCommand : public Command {
 public:
  explicit TaskCommand(const TaskRow& row)
      : Command(row.name, row.help), row_(row), words_(row.parameters.size()) {}

  void define(CLI::App& app) override {
    for (std::size_t i = 0; i < words_.size(); ++i) {
      auto* option = app.add_option(row_.parameters[i], words_[i])->required();
      if (std::string(row_.parameters[i]) == "STYLE") {
        option->type_name("{off,on,slow,fast,alternate}");  // the device checks it
      }
    }
  }

  std::string check(const Settings& settings) override {
    (void)settings;
    const bool data = words_.size() == 2 && std::string(row_.parameters[1]) == "DATA";
    return data && words_[1] == "-" ? readInput(words_[1]) : "";
  }

  std::unique_ptr<Job> job(JobContext context) override {
    std::vector<std::string> words = words_;
    for (std::size_t i = 0; i < words.size(); ++i) {
      words[i] = isPath(row_.parameters[i]) ? context.settings.remote(words[i]) : words[i];
    }
    return std::make_unique<TaskJob>(std::move(context), row_, std::move(words));
  }

  [[nodiscard]] bool destructive() const override { return row_.destructive; }

 private:
  const TaskRow& row_;
  std::vector<std::string> words_;
};

}  // namespace

void addTaskCommands(Commands& commands) {
  for (const TaskRow& row : rows()) {
    commands.push_back(std::make_unique<TaskCommand>(row));
  }
}

}  // namespace runelctl
