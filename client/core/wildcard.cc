// SPDX-License-Identifier: Apache-2.0
#include "client/core/wildcard.h"

#include <algorithm>

namespace runel {
namespace {

// Bytes that are not valid in UTF-8 become characters above those of Unicode.
constexpr char32_t kInvalidBytes = 0x110000;
constexpr char32_t kFirstOf[] = {0x80, 0x800, 0x10000};  // that needs 2, 3 or 4 bytes

// The number of bytes that follow the first one of a character. Negative if it cannot be first.
int continuationBytes(unsigned char first) {
  if (first < 0x80) {
    return 0;
  }
  if (first < 0xc2 || first > 0xf4) {
    return -1;
  }
  return first < 0xe0 ? 1 : (first < 0xf0 ? 2 : 3);
}

char32_t takeCharacter(std::string_view& text) {
  const auto first = static_cast<unsigned char>(text.front());
  const int more = continuationBytes(first);
  text.remove_prefix(1);
  if (more == 0) {
    return first;
  }
  const auto count = static_cast<std::size_t>(more < 0 ? 0 : more);
  if (more < 0 || text.size() < count) {
    return kInvalidBytes + first;
  }
  char32_t character = first & (0x3fU >> static_cast<unsigned>(more));
  for (std::size_t i = 0; i < count; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xc0U) != 0x80) {
      return kInvalidBytes + first;
    }
    character = character << 6U | (byte & 0x3fU);
  }
  const bool surrogate = character >= 0xd800 && character < 0xe000;
  if (character < kFirstOf[count - 1] || character >= kInvalidBytes || surrogate) {
    return kInvalidBytes + first;
  }
  text.remove_prefix(count);
  return character;
}

bool between(char32_t character, char32_t first, char32_t last) {
  return first <= character && character <= last;
}

bool isLower(char32_t c) {
  return between(c, 'a', 'z');
}
bool isUpper(char32_t c) {
  return between(c, 'A', 'Z');
}
bool isDigit(char32_t c) {
  return between(c, '0', '9');
}
bool isAlpha(char32_t c) {
  return isLower(c) || isUpper(c);
}
bool isAlnum(char32_t c) {
  return isAlpha(c) || isDigit(c);
}
bool isBlank(char32_t c) {
  return c == ' ' || c == '\t';
}
bool isSpace(char32_t c) {
  return c == ' ' || between(c, '\t', '\r');
}
bool isCntrl(char32_t c) {
  return c < ' ' || c == 0x7f;
}
bool isGraph(char32_t c) {
  return between(c, '!', '~');
}
bool isPrint(char32_t c) {
  return between(c, ' ', '~');
}
bool isPunct(char32_t c) {
  return isGraph(c) && !isAlnum(c);
}
bool isXdigit(char32_t c) {
  return isDigit(c) || between(c, 'a', 'f') || between(c, 'A', 'F');
}

struct NamedClass {
  const char* name;
  bool (*has)(char32_t character);
};

constexpr NamedClass kClasses[] = {
    {"alnum", isAlnum}, {"alpha", isAlpha}, {"blank", isBlank}, {"cntrl", isCntrl},
    {"digit", isDigit}, {"graph", isGraph}, {"lower", isLower}, {"print", isPrint},
    {"punct", isPunct}, {"space", isSpace}, {"upper", isUpper}, {"xdigit", isXdigit},
};

bool classHas(const std::string& name, char32_t character) {
  return std::any_of(std::begin(kClasses), std::end(kClasses),
                     [&](const NamedClass& one) { return name == one.name && one.has(character); });
}

bool isClass(const std::string& name) {
  return std::any_of(std::begin(kClasses), std::end(kClasses),
                     [&](const NamedClass& one) { return name == one.name; });
}

}  // namespace

Wildcard::Characters Wildcard::charactersOf(std::string_view text) {
  Characters characters;
  characters.reserve(text.size());
  while (!text.empty()) {
    characters.push_back(takeCharacter(text));
  }
  return characters;
}

Wildcard::Wildcard(std::string_view text) {
  const Characters pattern = charactersOf(text);
  for (std::size_t at = 0; at < pattern.size(); ++at) {
    Token token;
    token.character = pattern[at];
    if (pattern[at] == '*') {
      const std::size_t first = at;
      while (at + 1 < pattern.size() && pattern[at + 1] == '*') {
        ++at;
      }
      token.kind = at == first ? Kind::star : Kind::stars;
    } else if (pattern[at] == '?') {
      token.kind = Kind::any;
    } else if (pattern[at] == '[' && takeSet(pattern, at, token)) {
      token.kind = Kind::set;
    } else if (pattern[at] == '\\' && at + 1 < pattern.size()) {
      token.character = pattern[++at];
    }
    tokens_.push_back(std::move(token));
  }
}

Wildcard Wildcard::literal(std::string_view text) {
  Wildcard wildcard;
  for (const char32_t character : charactersOf(text)) {
    wildcard.tokens_.push_back({Kind::character, character});
  }
  return wildcard;
}

// Takes a set from its bracket, and leaves @p at on its last bracket. False if it is not closed.
bool Wildcard::takeSet(const Characters& pattern, std::size_t& at, Token& token) {
  Token set = token;
  std::size_t next = at + 1;
  if (next < pattern.size() && (pattern[next] == '!' || pattern[next] == '^')) {
    set.negated = true;
    ++next;
  }
  // A closing bracket that is the first one belongs to the set.
  for (bool first = true; next < pattern.size(); first = false) {
    if (pattern[next] == ']' && !first) {
      at = next;
      token = std::move(set);
      return true;
    }
    if (!takeClass(pattern, next, set) && !takeRange(pattern, next, set)) {
      return false;
    }
  }
  return false;
}

// Takes "[:NAME:]".
bool Wildcard::takeClass(const Characters& pattern, std::size_t& at, Token& token) {
  if (pattern[at] != '[' || at + 1 >= pattern.size() || pattern[at + 1] != ':') {
    return false;
  }
  std::string name;
  std::size_t next = at + 2;
  for (; next < pattern.size() && isLower(pattern[next]); ++next) {
    name += static_cast<char>(pattern[next]);
  }
  if (next + 1 >= pattern.size() || pattern[next] != ':' || pattern[next + 1] != ']' ||
      !isClass(name)) {
    return false;
  }
  token.classes.push_back(name);
  at = next + 2;
  return true;
}

// Takes one character, or a range such as "a-z". False at the end of the pattern.
bool Wildcard::takeRange(const Characters& pattern, std::size_t& at, Token& token) {
  const auto takeOne = [&](char32_t& character) {
    at += pattern[at] == '\\' ? 1 : 0;
    const bool there = at < pattern.size();
    character = there ? pattern[at++] : 0;
    return there;
  };
  char32_t first = 0;
  if (!takeOne(first)) {
    return false;
  }
  char32_t last = first;
  if (at + 1 < pattern.size() && pattern[at] == '-' && pattern[at + 1] != ']') {
    ++at;
    if (!takeOne(last)) {
      return false;
    }
  }
  token.ranges.emplace_back(first, last);
  return true;
}

bool Wildcard::takes(const Token& token, char32_t character) {
  switch (token.kind) {
    case Kind::character:
      return token.character == character;
    case Kind::stars:
      return true;
    case Kind::any:
    case Kind::star:
      return character != '/';
    case Kind::set:
      break;
  }
  const bool in = std::any_of(token.ranges.begin(), token.ranges.end(),
                              [&](const auto& range) {
                                return between(character, range.first, range.second);
                              }) ||
                  std::any_of(token.classes.begin(), token.classes.end(),
                              [&](const std::string& name) { return classHas(name, character); });
  return character != '/' && in != token.negated;
}

// A star matches nothing too.
void Wildcard::skipStars(std::vector<bool>& states) const {
  for (std::size_t i = 0; i < tokens_.size(); ++i) {
    const bool star = tokens_[i].kind == Kind::star || tokens_[i].kind == Kind::stars;
    if (states[i] && star) {
      states[i + 1] = true;
    }
  }
}

// Follows all ways through the pattern at once: trying one after the other would take
// exponentially long with many stars. State i means that the tokens before i have matched.
bool Wildcard::matches(std::string_view name) const {
  std::vector<bool> states(tokens_.size() + 1);
  std::vector<bool> after(states.size());
  states[0] = true;
  skipStars(states);
  while (!name.empty()) {
    const char32_t character = takeCharacter(name);
    after.assign(states.size(), false);
    bool alive = false;
    for (std::size_t i = 0; i < tokens_.size(); ++i) {
      if (states[i] && takes(tokens_[i], character)) {
        const bool star = tokens_[i].kind == Kind::star || tokens_[i].kind == Kind::stars;
        after[star ? i : i + 1] = alive = true;
      }
    }
    if (!alive) {
      return false;
    }
    states.swap(after);
    skipStars(states);
  }
  return states.back();
}

bool hasWildcard(std::string_view text) {
  return text.find_first_of("*?[") != std::string_view::npos;
}

}  // namespace runel
