// SPDX-License-Identifier: Apache-2.0
// The shell: runs one command after the other, over the same connection.
#ifndef RUNELCTL_SHELL_SHELL_H_
#define RUNELCTL_SHELL_SHELL_H_

#include <optional>
#include <string>
#include <vector>

#include <runel/async_device.h>
#include <runel/loop.h>

#include "cli/run.h"
#include "commands/settings.h"
#include "output/style.h"
#include "shell/completer.h"

namespace runelctl {

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
  [[nodiscard]] runel::Reply ask(const std::vector<std::string>& task);
  [[nodiscard]] std::vector<DirectoryEntry> list(const std::string& directory);
  [[nodiscard]] std::string prompt() const;
  [[nodiscard]] const std::vector<runel::Address>& targets() const {
    return session_.settings.targets;
  }
  [[nodiscard]] const std::string& directory() const { return session_.settings.directory; }

  const Style& style_;
  runel::Loop loop_;
  std::optional<runel::AsyncDevice> device_;  // set for a single device
  Session session_;
  std::string before_;  // the previous directory, for "cd -"
  int status_ = 0;
  bool over_ = false;
};

}  // namespace runelctl

#endif  // RUNELCTL_SHELL_SHELL_H_
