// SPDX-License-Identifier: Apache-2.0
// Matches names with a pattern, as a shell does.
#ifndef RUNEL_CORE_WILDCARD_H_
#define RUNEL_CORE_WILDCARD_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace runel {

/// One pattern:
///   *      any characters except a slash     ?      one character except a slash
///   **     any characters                    [a-z]  one of these characters, never a slash
///   \c     the character c                   [!a-z] one character that is not of these
/// Classes such as [[:digit:]] are for ASCII. A bracket that is not closed is an ordinary
/// character. A character is one of UTF-8, or a byte that is not valid in UTF-8.
class Wildcard {
 public:
  explicit Wildcard(std::string_view text);
  /// Matches @p text only: nothing in it has a meaning.
  [[nodiscard]] static Wildcard literal(std::string_view text);

  /// Whether the pattern matches all of @p name. The time is at most proportional to the product
  /// of both lengths.
  [[nodiscard]] bool matches(std::string_view name) const;

 private:
  using Characters = std::vector<char32_t>;

  enum class Kind { character, any, set, star, stars };
  struct Token {
    Kind kind = Kind::character;
    char32_t character = 0;
    bool negated = false;
    std::vector<std::pair<char32_t, char32_t>> ranges{};
    std::vector<std::string> classes{};
  };

  Wildcard() = default;
  [[nodiscard]] static Characters charactersOf(std::string_view text);
  [[nodiscard]] static bool takeSet(const Characters& pattern, std::size_t& at, Token& token);
  [[nodiscard]] static bool takeClass(const Characters& pattern, std::size_t& at, Token& token);
  [[nodiscard]] static bool takeRange(const Characters& pattern, std::size_t& at, Token& token);
  [[nodiscard]] static bool takes(const Token& token, char32_t character);
  void skipStars(std::vector<bool>& states) const;

  std::vector<Token> tokens_;
};

/// Whether @p text has a character with a meaning in a pattern, other than the backslash.
[[nodiscard]] bool hasWildcard(std::string_view text);

}  // namespace runel

#endif  // RUNEL_CORE_WILDCARD_H_
