// SPDX-License-Identifier: Apache-2.0
#include "text/nearest.h"

#include <algorithm>

namespace zell {
namespace {

// The cost is the product of the lengths.
constexpr std::size_t kLongestCompared = 64;

std::size_t mostEdits(std::size_t length) {
  return length <= 2 ? 0 : length <= 5 ? 1 : 2;
}

}  // namespace

std::size_t editDistance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> before;  // the rows of the last two bytes of `one`
  std::vector<std::size_t> last(other.size() + 1);
  for (std::size_t k = 0; k <= other.size(); ++k) {
    last[k] = k;
  }
  for (std::size_t i = 1; i <= one.size(); ++i) {
    std::vector<std::size_t> row(other.size() + 1, i);
    for (std::size_t k = 1; k <= other.size(); ++k) {
      const std::size_t changed = last[k - 1] + (one[i - 1] == other[k - 1] ? 0 : 1);
      row[k] = std::min({last[k] + 1, row[k - 1] + 1, changed});
      if (i > 1 && k > 1 && one[i - 1] == other[k - 2] && one[i - 2] == other[k - 1]) {
        row[k] = std::min(row[k], before[k - 2] + 1);
      }
    }
    before = std::move(last);
    last = std::move(row);
  }
  return last[other.size()];
}

std::string nearestWord(std::string_view word, const std::vector<std::string>& known) {
  std::string nearest;
  std::size_t least = mostEdits(word.size()) + 1;
  for (const std::string& candidate : known) {
    if (word.size() > kLongestCompared || candidate.size() > kLongestCompared) {
      continue;
    }
    const std::size_t edits = editDistance(word, candidate);
    if (edits < least) {
      least = edits;
      nearest = candidate;
    }
  }
  return nearest;
}

std::string suggestion(std::string_view word, const std::vector<std::string>& known) {
  const std::string nearest = nearestWord(word, known);
  return nearest.empty() ? "" : " (did you mean '" + nearest + "'?)";
}

}  // namespace zell
