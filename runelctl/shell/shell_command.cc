// SPDX-License-Identifier: Apache-2.0
// The command `shell`.
#include <memory>

#include <CLI/CLI.hpp>

#include "cli/local_command.h"
#include "shell/shell.h"

namespace runelctl {
namespace {

class ShellCommand : public LocalCommand {
 public:
  ShellCommand() : LocalCommand("shell", "read commands from a terminal or from standard input") {}

  void define(CLI::App& app) override { (void)app; }
  [[nodiscard]] Devices devices() const override { return Devices::usual; }

  int run(const Settings& settings, const Style& style) override {
    Shell shell(settings, style);
    return shell.run();
  }
  [[nodiscard]] bool runsCommands() const override { return true; }
};

}  // namespace

void addShellCommand(LocalCommands& commands) {
  commands.push_back(std::make_unique<ShellCommand>());
}

}  // namespace runelctl
