// SPDX-License-Identifier: Apache-2.0
// A path on the device with wildcards.
#ifndef RUNELCTL_COMMANDS_GLOB_PATTERN_H_
#define RUNELCTL_COMMANDS_GLOB_PATTERN_H_

#include <string>
#include <string_view>
#include <vector>

#include "client/core/wildcard.h"

namespace runelctl {

/// Whether @p word may be a pattern: it contains *, ? or [.
[[nodiscard]] bool isPattern(const std::string& word);

/// One component of a path.
class GlobComponent {
 public:
  /// @p text has no slash. A backslash quotes the next character.
  explicit GlobComponent(std::string_view text);

  /// Whether it has wildcards. Otherwise it is the name `name`.
  [[nodiscard]] bool wild() const { return wild_; }
  [[nodiscard]] const std::string& name() const { return name_; }
  /// Whether @p name is that of an entry of a directory and matches. As in a shell, a hidden name
  /// does not match unless the pattern begins with a dot.
  [[nodiscard]] bool matches(const std::string& name) const;

 private:
  bool wild_ = false;  // before `name_`, whose initialization sets it
  std::string name_;
  bool hidden_ = false;
  runel::Wildcard wildcard_;
};

/// The components of @p word. Those between adjacent slashes are left out.
[[nodiscard]] std::vector<GlobComponent> globComponents(std::string_view word);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_GLOB_PATTERN_H_
