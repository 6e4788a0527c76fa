// SPDX-License-Identifier: Apache-2.0
// Completion of the current word in the shell.
#ifndef RUNELCTL_SHELL_COMPLETER_H_
#define RUNELCTL_SHELL_COMPLETER_H_

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "cli/tables.h"
#include "shell/words.h"

namespace runelctl {

/// A name in a remote or local directory.
struct DirectoryEntry {
  std::string name;
  bool directory = false;
};

/// Sends no requests itself: functions list directories and names.
class Completer {
 public:
  using List = std::function<std::vector<DirectoryEntry>(const std::string& directory)>;
  using Names = std::function<std::vector<std::string>()>;
  struct Lists {
    List remote;
    List local;
    Names devices;
    Names groups;
  };

  /// The candidates for the last word of the line, quoted.
  struct Offer {
    std::size_t begin = 0;           ///< start of the word in the line
    std::vector<std::string> words;  ///< sorted; a trailing '/' allows further completion
  };

  /// @p own are the built-in commands of the shell.
  Completer(Tables tables, std::vector<std::string> own, Lists lists);

  /// @p before is the line up to the cursor.
  [[nodiscard]] Offer complete(const std::string& before) const;

 private:
  [[nodiscard]] std::vector<std::string> candidates(const std::vector<std::string>& before,
                                                    const std::string& word) const;
  [[nodiscard]] std::vector<std::string> commandNames(const std::string& word) const;
  [[nodiscard]] std::vector<std::string> optionNames(const CommandRow* command,
                                                     const std::string& word) const;
  [[nodiscard]] std::vector<std::string> values(const OptionRow& row,
                                                const std::string& word) const;

  const Tables tables_;
  const std::vector<std::string> own_;
  const Lists lists_;
};

/// The paths that @p word may become, with '/' after directories. @p list lists the directory of
/// @p word. Omits names that cannot be typed.
[[nodiscard]] std::vector<std::string> completePath(const Completer::List& list,
                                                    const std::string& word);

/// The longest common prefix of @p words, in complete characters.
[[nodiscard]] std::string sharedBeginning(const std::vector<std::string>& words);

}  // namespace runelctl

#endif  // RUNELCTL_SHELL_COMPLETER_H_
