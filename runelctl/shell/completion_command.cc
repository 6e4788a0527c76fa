// SPDX-License-Identifier: Apache-2.0
// The command `completion`.
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include <runel/request.h>
#include "cli/command_line.h"

#include "cli/local_command.h"
#include "output/standard_output.h"
#include "shell/completion.h"

namespace runelctl {
namespace {

class CompletionCommand : public LocalCommand {
 public:
  CompletionCommand() : LocalCommand("completion", "print a shell completion script") {}

  void define(CLI::App& app) override {
    app.add_option("SHELL", shell_, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  }

  int run(const Settings& settings, const Style& style) override {
    (void)settings;
    CommandLine line;
    const Tables tables = readTables(line.app());
    const std::string script = shell_ == "bash"  ? bashCompletion(tables)
                               : shell_ == "zsh" ? zshCompletion(tables)
                                                 : fishCompletion(tables);
    return writeOut(style, script) ? 0 : kExitTaskFailed;
  }

 private:
  std::string shell_;
};

}  // namespace

void addCompletionCommand(LocalCommands& commands) {
  commands.push_back(std::make_unique<CompletionCommand>());
}

}  // namespace runelctl
