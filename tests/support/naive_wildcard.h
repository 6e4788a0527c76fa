// SPDX-License-Identifier: Apache-2.0
// A second implementation of wildcards for ASCII, which tries one way after the other.
#ifndef TESTS_SUPPORT_NAIVE_WILDCARD_H_
#define TESTS_SUPPORT_NAIVE_WILDCARD_H_

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace zell::test {

/// The closing bracket of the set that @p pattern begins with; npos without one.
inline std::size_t endOfSet(std::string_view pattern) {
  const bool negated = pattern.size() > 1 && (pattern[1] == '!' || pattern[1] == '^');
  const std::size_t first = negated ? 2 : 1;
  for (std::size_t at = first; at < pattern.size(); ++at) {
    if (pattern[at] == ']' && at > first) {
      return at;
    }
    at += pattern[at] == '\\' ? 1 : 0;
    // The last character of a range may be quoted, and is not the end.
    if (at + 2 < pattern.size() && pattern[at + 1] == '-' && pattern[at + 2] != ']') {
      at += pattern[at + 2] == '\\' ? 3 : 2;
    }
  }
  return std::string_view::npos;
}

/// Whether @p set, the text between its brackets, has @p character.
inline bool setHas(std::string_view set, char character) {
  const bool negated = !set.empty() && (set[0] == '!' || set[0] == '^');
  bool has = false;
  for (std::size_t at = negated ? 1 : 0; at < set.size(); ++at) {
    at += set[at] == '\\' ? 1 : 0;
    const char first = set[at];
    char last = first;
    if (at + 2 < set.size() && set[at + 1] == '-') {
      at += set[at + 2] == '\\' ? 3 : 2;
      last = set[at];
    }
    has = has || (first <= character && character <= last);
  }
  return has != negated && character != '/';
}

/// Without classes such as [:digit:].
inline bool naiveMatch(std::string_view pattern, std::string_view name) {
  if (pattern.empty()) {
    return name.empty();
  }
  if (pattern[0] == '*') {
    const std::size_t stars = std::min(pattern.find_first_not_of('*'), pattern.size());
    const std::string_view rest = pattern.substr(stars);
    for (std::size_t taken = 0; taken <= name.size(); ++taken) {
      if (naiveMatch(rest, name.substr(taken))) {
        return true;
      }
      if (stars == 1 && taken < name.size() && name[taken] == '/') {
        return false;
      }
    }
    return false;
  }
  const std::size_t end = pattern[0] == '[' ? endOfSet(pattern) : std::string_view::npos;
  if (name.empty()) {
    return false;
  }
  if (end != std::string_view::npos) {
    return setHas(pattern.substr(1, end - 1), name[0]) &&
           naiveMatch(pattern.substr(end + 1), name.substr(1));
  }
  if (pattern[0] == '?') {
    return name[0] != '/' && naiveMatch(pattern.substr(1), name.substr(1));
  }
  pattern.remove_prefix(pattern[0] == '\\' && pattern.size() > 1 ? 1 : 0);
  return pattern[0] == name[0] && naiveMatch(pattern.substr(1), name.substr(1));
}

}  // namespace zell::test

#endif  // TESTS_SUPPORT_NAIVE_WILDCARD_H_
