// SPDX-License-Identifier: Apache-2.0
// Splits a line into words, like a shell.
#ifndef RUNELCTL_SHELL_WORDS_H_
#define RUNELCTL_SHELL_WORDS_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace runelctl {

/// The words of a line. Blanks separate words, unless they are in '...' or "..." or follow a
/// backslash. '#' at the start of a word starts a comment. Nothing is expanded.
struct Line {
  std::vector<std::string> words;
  bool open = false;     ///< a quote or escape is unterminated
  bool inWord = false;   ///< the line ends inside the last word
  std::size_t last = 0;  ///< start of the last word; the line's length without one
};

[[nodiscard]] Line cutLine(std::string_view text);

/// Quotes @p word, so that it is parsed as one word.
[[nodiscard]] std::string quoteWord(std::string_view word);

}  // namespace runelctl

#endif  // RUNELCTL_SHELL_WORDS_H_
