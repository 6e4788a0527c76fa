// SPDX-License-Identifier: Apache-2.0
// What the word that is being typed in the shell could become.
#ifndef ZELL_RUNELCTL_SHELL_COMPLETER_H_
#define ZELL_RUNELCTL_SHELL_COMPLETER_H_

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "app/tables.h"
#include "shell/words.h"

namespace zell::ctl {

/// A name in a folder of the device or of this host.
struct FolderEntry {
  std::string name;
  bool folder = false;
};

/// Asks nobody itself: what is in a folder comes through functions.
class Completer {
 public:
  using List = std::function<std::vector<FolderEntry>(const std::string& folder)>;

  /// What can stand in place of the line's last word, as it is to be typed.
  struct Offer {
    std::size_t begin = 0;           ///< where the word begins
    std::vector<std::string> words;  ///< sorted; one that ends in '/' goes on
  };

  /// @p own are commands of the shell itself, which take a remote folder.
  Completer(Tables tables, std::vector<std::string> own, List remote, List local);

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
  static std::vector<std::string> paths(const List& list, const std::string& word);

  const Tables tables_;
  const std::vector<std::string> own_;
  const List remote_;
  const List local_;
};

/// The longest beginning that all of @p words share, cut to whole characters.
[[nodiscard]] std::string sharedBeginning(const std::vector<std::string>& words);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_SHELL_COMPLETER_H_
