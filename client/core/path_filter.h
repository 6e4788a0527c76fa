// SPDX-License-Identifier: Apache-2.0
// Which files of a directory tree a transfer leaves out.
#ifndef RUNEL_CORE_PATH_FILTER_H_
#define RUNEL_CORE_PATH_FILTER_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/error.h>

#include "client/core/wildcard.h"

namespace runel {

/// Rules in the form that rsync's --exclude takes. The first rule that matches a path decides, and
/// a path without a matching rule is not left out.
class PathFilter {
 public:
  /// Adds a rule: PATTERN or "- PATTERN" leaves matching paths out, "+ PATTERN" does not. Returns
  /// the error of an invalid one.
  [[nodiscard]] std::optional<Error> add(const std::string& text);
  /// Adds several rules up to the first invalid one.
  [[nodiscard]] std::optional<Error> add(const std::vector<std::string>& rules);

  /// Whether a rule leaves out @p path, which is relative to the top of the tree. Does not look at
  /// the directories in the path.
  [[nodiscard]] bool leavesOut(std::string_view path, bool directory) const;
  /// The same, but also whether a rule leaves out a directory in the path.
  [[nodiscard]] bool hides(std::string_view path, bool directory) const;
  /// Whether a rule leaves out a source with the name @p name. It has no path below the top of a
  /// tree, so anchored rules do not match.
  [[nodiscard]] bool leavesOutSource(const std::string& name, bool directory) const;
  [[nodiscard]] bool empty() const { return rules_.empty(); }

 private:
  struct Rule {
    std::vector<Wildcard> patterns;  // one of them has to match
    bool out = true;
    bool anchored = false;
    bool wholePath = false;  // not only the last component
    bool directories = false;
  };

  [[nodiscard]] static bool matches(const Rule& rule, std::string_view path);
  [[nodiscard]] bool decide(std::string_view path, bool directory, bool source) const;

  std::vector<Rule> rules_;
};

/// The rules in @p text, one a line. Empty lines and lines that begin with "#" or ";" have none.
[[nodiscard]] std::vector<std::string> filterRulesIn(std::string_view text);

}  // namespace runel

#endif  // RUNEL_CORE_PATH_FILTER_H_
