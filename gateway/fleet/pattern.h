// SPDX-License-Identifier: Apache-2.0
// Names and values with wildcards and number ranges.
#ifndef RUNELGW_FLEET_PATTERN_H_
#define RUNELGW_FLEET_PATTERN_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace runelgw {

/// A piece of a query's text: characters, each with its place in the query, and whether quotes or a
/// backslash have taken its meaning.
struct Word {
  std::string text;
  std::vector<bool> quoted;
  std::vector<std::size_t> places;
  std::size_t end = 0;  ///< the place after the word

  [[nodiscard]] bool is(std::size_t at, char character) const {
    return text[at] == character && !quoted[at];
  }
  /// The place of the character @p at, or of the end.
  [[nodiscard]] std::size_t place(std::size_t at) const {
    return at < places.size() ? places[at] : end;
  }
  [[nodiscard]] Word from(std::size_t begin) const;
};

/// `*` stands for any bytes, `?` for one character of UTF-8, `[1-20]` and `[01-12,15]` for numbers.
/// A leading zero gives all numbers of its range the width of the first one.
class Pattern {
 public:
  /// Where and why a pattern is malformed.
  struct Problem {
    std::size_t place = 0;
    std::string text;
  };

  Pattern() = default;
  /// Without a value, @p problem says why.
  [[nodiscard]] static std::optional<Pattern> parse(const Word& word, Problem& problem);

  /// Whether it matches all of @p text. The time is at most proportional to the product of both
  /// lengths.
  [[nodiscard]] bool matches(std::string_view text) const;
  /// Has neither wildcards nor numbers: `text` is the only match.
  [[nodiscard]] bool isLiteral() const { return tokens_.empty(); }
  [[nodiscard]] const std::string& text() const { return text_; }
  /// All matches, if it has no wildcards and there are at most @p most.
  [[nodiscard]] std::optional<std::vector<std::string>> all(std::size_t most) const;

 private:
  struct Range {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    std::size_t width = 0;
  };
  enum class Kind { byte, one, any, numbers };
  struct Token {
    Kind kind = Kind::byte;
    char byte = '\0';
    std::vector<Range> ranges;
  };

  [[nodiscard]] static bool takeNumbers(const Word& word, std::size_t& at, Token& token,
                                        Problem& problem);
  [[nodiscard]] static bool takeRange(std::string_view text, Token& token, std::string& why);
  static void step(const Token& token, std::string_view text, std::size_t from,
                   std::vector<bool>& reached);
  static void stepNumbers(const Token& token, std::string_view text, std::size_t from,
                          std::vector<bool>& reached);

  std::string text_;           // of a literal
  std::vector<Token> tokens_;  // empty for a literal
};

}  // namespace runelgw

#endif  // RUNELGW_FLEET_PATTERN_H_
