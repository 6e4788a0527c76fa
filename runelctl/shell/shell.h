// SPDX-License-Identifier: Apache-2.0
// The interactive line: command after command on the same device, over the same connection.
#ifndef ZELL_RUNELCTL_SHELL_SHELL_H_
#define ZELL_RUNELCTL_SHELL_SHELL_H_

#include <optional>
#include <string>
#include <vector>

#include "app/run.h"
#include "client/device.h"
#include "client/loop.h"
#include "commands/settings.h"
#include "output/style.h"
#include "shell/completer.h"

namespace zell::ctl {

class Shell {
 public:
  Shell(const Settings& settings, const Style& style);
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  /// Reads lines and runs them until "exit" or the end. The exit status of the last one.
  [[nodiscard]] int run();

 private:
  void readTerminal();
  void readPipe();
  void runLine(const std::string& text);
  [[nodiscard]] bool runOwn(const std::vector<std::string>& words);
  [[nodiscard]] int changeFolder(const std::vector<std::string>& words);
  [[nodiscard]] int changeLocalFolder(const std::vector<std::string>& words);
  [[nodiscard]] int leave(const std::vector<std::string>& words);
  [[nodiscard]] int runCommand(const std::vector<std::string>& words);
  [[nodiscard]] Reply ask(const Request& request, Milliseconds limit);
  [[nodiscard]] std::vector<FolderEntry> list(const std::string& folder);
  void markFolders(const std::string& folder, std::vector<FolderEntry>& entries);
  [[nodiscard]] std::string prompt() const;

  const Settings& settings_;
  const Style& style_;
  Loop loop_;
  std::optional<Device> device_;  // of a session with one
  Session session_;
  std::vector<std::string> where_;  // options that say which devices
  std::string before_;              // the folder that "cd -" goes back to
  int status_ = 0;
  bool over_ = false;
};

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_SHELL_SHELL_H_
