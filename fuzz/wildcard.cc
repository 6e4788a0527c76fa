// SPDX-License-Identifier: Apache-2.0
// Patterns and rules that leave out files, compared with second implementations.
//
// The input is a pattern, a newline and a name.
#include <algorithm>
#include <cctype>
#include <string>

#include <fnmatch.h>

#include "client/core/path_filter.h"
#include "client/core/wildcard.h"
#include "fuzz.h"
#include "support/naive_wildcard.h"

namespace {

using zell::fuzz::require;

constexpr long kMostStars = 5;  // the second implementations take exponentially long

bool plain(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > 0 && c < 128; });
}

void compare(const std::string& pattern, const std::string& name) {
  const bool fits = runel::Wildcard(pattern).matches(name);
  require(runel::Wildcard::literal(name).matches(name));
  if (!plain(pattern) || !plain(name) ||
      std::count(pattern.begin(), pattern.end(), '*') > kMostStars) {
    return;
  }
  if (pattern.find("[:") == std::string::npos) {
    require(fits == zell::test::naiveMatch(pattern, name));
  }
  if (pattern.find("**") == std::string::npos &&
      pattern.find_first_of("[\\") == std::string::npos) {
    require(fits == (fnmatch(pattern.c_str(), name.c_str(), FNM_PATHNAME) == 0));
  }
}

// A path is hidden exactly if a part of it, from its beginning, is left out.
void filter(const std::string& rule, const std::string& path) {
  runel::PathFilter filter;
  if (filter.add(runel::filterRulesIn(rule + "\n+ x\n" + rule))) {
    return;
  }
  bool hidden = path != "." && filter.leavesOut(path, false);
  for (std::size_t at = path.find('/'); at != std::string::npos; at = path.find('/', at + 1)) {
    hidden = hidden || filter.leavesOut(path.substr(0, at), true);
  }
  require(filter.hides(path, false) == hidden);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = zell::fuzz::toString(data, std::min<std::size_t>(size, 200));
  const std::size_t end = std::min(input.find('\n'), input.size());
  const std::string pattern = input.substr(0, end);
  const std::string name = input.substr(std::min(end + 1, input.size()));
  compare(pattern, name);
  filter(pattern, name);
  return 0;
}
