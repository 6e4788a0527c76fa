// SPDX-License-Identifier: Apache-2.0
// Suggestions for misspelled words.
#ifndef ZELL_TEXT_NEAREST_H_
#define ZELL_TEXT_NEAREST_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zell {

/// The number of edits between two words: inserted, removed and replaced bytes, and exchanges of
/// two neighbours.
[[nodiscard]] std::size_t editDistance(std::string_view one, std::string_view other);

/// The word of @p known that is most similar to @p word, the first of several. Empty if none is
/// similar enough to be meant.
[[nodiscard]] std::string nearestWord(std::string_view word, const std::vector<std::string>& known);

/// " (did you mean 'WORD'?)" for the nearest of @p known; empty if none is similar enough.
[[nodiscard]] std::string suggestion(std::string_view word, const std::vector<std::string>& known);

}  // namespace zell

#endif  // ZELL_TEXT_NEAREST_H_
