// SPDX-License-Identifier: Apache-2.0
// Expands patterns to paths on the device, with requests that only read. No shell takes part.
#ifndef RUNELCTL_COMMANDS_PATH_EXPANDER_H_
#define RUNELCTL_COMMANDS_PATH_EXPANDER_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <runel/request.h>

#include "commands/glob_pattern.h"
#include "output/error.h"

namespace runelctl {

/// Expands a list of words, one after the other. A word without *, ? and [ is a path. A word that
/// is the path of an existing file stands for that file, even if it has wildcards. Otherwise the
/// names of the directories on the device are matched, sorted by byte value.
class PathExpander {
 public:
  using Ask = std::function<void(const runel::Request&, runel::ReplyHandler)>;

  struct Expanded {
    std::vector<std::string> paths;
    bool matched = false;              ///< a pattern was replaced by what it matches
    std::vector<Error> failures;       ///< one for each pattern without a match
    std::optional<runel::Reply> lost;  ///< the reply without an answer that ended the expansion
  };
  using Done = std::function<void(Expanded)>;

  /// Relative words start from @p directory. @p ask calls its second argument later, and not after
  /// the destruction of this object.
  PathExpander(Ask ask, std::string directory);
  PathExpander(const PathExpander&) = delete;
  PathExpander& operator=(const PathExpander&) = delete;

  /// Calls @p done once, which may destroy this object. Without patterns, calls it before it
  /// returns.
  void expand(std::vector<std::string> words, Done done);
  /// Sends the first requests for each pattern of @p words, and ignores the answers.
  void askFirst(const std::vector<std::string>& words);
  /// Describes the requests that follow them.
  [[nodiscard]] static std::string laterText();

 private:
  void proceed();
  void lookAt(const std::string& path);
  void match(const std::string& word);
  void descend();
  void listNext();
  void take(const std::string& directory, const runel::Reply& reply);
  void lookAtNext();
  void endWord();
  [[nodiscard]] bool lost(const runel::Reply& reply);
  [[nodiscard]] std::string remote(const std::string& word) const;

  const Ask ask_;
  const std::string directory_;
  std::vector<std::string> words_;
  std::size_t word_ = 0;
  Done done_;
  Expanded expanded_;

  // Of the current pattern.
  std::vector<GlobComponent> components_;
  std::size_t component_ = 0;
  std::string slash_;               // that the word ends with
  std::vector<std::string> found_;  // paths up to the current component
  std::vector<std::string> next_;   // paths with it
  std::size_t at_ = 0;              // in `found_`
  std::optional<Error> trouble_;    // the first directory that could not be read
};

/// The error if a pattern matched and two of the paths have the same last component, so that they
/// cannot be copied into one directory.
[[nodiscard]] std::optional<Error> sameNames(const PathExpander::Expanded& expanded);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_PATH_EXPANDER_H_
