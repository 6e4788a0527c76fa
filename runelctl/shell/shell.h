// SPDX-License-Identifier: Apache-2.0
// The shell: runs one command after the other, over the same connection.
#ifndef ZELL_RUNELCTL_SHELL_SHELL_H_
#define ZELL_RUNELCTL_SHELL_SHELL_H_

#include <optional>
#include <string>
#include <vector>

#include "cli/run.h"
#include "client/core/device.h"
#include "client/core/loop.h"
#include "commands/settings.h"
#include "output/style.h"
#include "shell/completer.h"

namespace zell::ctl {

class Shell {
 public:
  Shell(const Settings& settings, const Style& style);
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  /// Reads lines and runs them until "exit" or the end of the input. Returns the last exit status.
  [[nodiscard]] int run();

 private:
  void readTerminal();
  void readPipe();
  void runLine(const std::string& text);
  [[nodiscard]] bool runOwn(const std::vector<std::string>& words);
  [[nodiscard]] int changeDirectory(const std::vector<std::string>& words);
  [[nodiscard]] int changeLocalDirectory(const std::vector<std::string>& words);
  [[nodiscard]] int leave(const std::vector<std::string>& words);
  [[nodiscard]] int runCommand(const std::vector<std::string>& words);
  [[nodiscard]] Reply ask(const Request& request, Milliseconds limit);
  [[nodiscard]] std::vector<DirectoryEntry> list(const std::string& directory);
  void markDirectories(const std::string& directory, std::vector<DirectoryEntry>& entries);
  [[nodiscard]] std::string prompt() const;

  const Settings& settings_;
  const Style& style_;
  Loop loop_;
  std::optional<Device> device_;  // set for a single device
  Session session_;
  std::vector<std::string> where_;  // options that select the devices
  std::string before_;              // the previous directory, for "cd -"
  int status_ = 0;
  bool over_ = false;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_SHELL_SHELL_H_
