// SPDX-License-Identifier: Apache-2.0
// A line that was typed, cut into words as the usual shells do it.
#ifndef ZELL_RUNELCTL_SHELL_WORDS_H_
#define ZELL_RUNELCTL_SHELL_WORDS_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zell::ctl {

/// What a line says. Blanks separate words; '...', "..." and a backslash keep them together; '#'
/// begins a comment where a word could begin. Nothing is expanded.
struct Line {
  std::vector<std::string> words;
  bool open = false;     ///< a quote or a backslash waits for more
  bool inWord = false;   ///< it ends within the last word, not behind it
  std::size_t last = 0;  ///< where the last word begins; the line's length without one
};

[[nodiscard]] Line cutLine(std::string_view text);

/// @p word as it must be typed to be one word.
[[nodiscard]] std::string quoteWord(std::string_view word);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_SHELL_WORDS_H_
