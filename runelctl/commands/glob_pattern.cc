// SPDX-License-Identifier: Apache-2.0
#include "commands/glob_pattern.h"

#include <cstddef>

namespace runelctl {
namespace {

// @p text without the backslashes that quote. Sets @p wild if a wildcard is left.
std::string unquoted(std::string_view text, bool& wild) {
  std::string name;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      ++i;
    } else {
      wild = wild || text[i] == '*' || text[i] == '?' || text[i] == '[';
    }
    name += text[i];
  }
  return name;
}

}  // namespace

// A quoted wildcard counts too, so that its backslash is removed. As in a shell, a bracket that is
// not closed within its component is an ordinary character.
bool isPattern(const std::string& word) {
  for (std::size_t i = 0; i < word.size(); ++i) {
    const std::size_t close = word[i] == '[' ? word.find_first_of("]/", i + 1) : std::string::npos;
    const bool closed = close != std::string::npos && word[close] == ']';
    if (word[i] == '*' || word[i] == '?' || closed) {
      return true;
    }
  }
  return false;
}

GlobComponent::GlobComponent(std::string_view text)
    : name_(unquoted(text, wild_)), hidden_(!name_.empty() && name_[0] == '.'), wildcard_(text) {}

// The name comes from the device: it must not lead elsewhere.
bool GlobComponent::matches(const std::string& name) const {
  const bool entry = !name.empty() && name != "." && name != ".." &&
                     name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
  return entry && (hidden_ || name[0] != '.') && wildcard_.matches(name);
}

std::vector<GlobComponent> globComponents(std::string_view word) {
  std::vector<GlobComponent> components;
  while (!word.empty()) {
    const std::size_t slash = word.find('/');
    if (slash != 0) {
      components.emplace_back(word.substr(0, slash));
    }
    word.remove_prefix(slash == std::string_view::npos ? word.size() : slash + 1);
  }
  return components;
}

}  // namespace runelctl
