// SPDX-License-Identifier: Apache-2.0
// Names against patterns.
#include "client/core/wildcard.h"

#include <cctype>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <fnmatch.h>
#include <gtest/gtest.h>

#include "support/naive_wildcard.h"

namespace runel {
namespace {

bool fits(const char* pattern, const std::string& name) {
  return Wildcard(pattern).matches(name);
}

// All texts of at most @p length of the characters @p from.
std::vector<std::string> allTexts(const std::string& from, std::size_t length) {
  std::vector<std::string> texts{""};
  for (std::size_t begin = 0, end = 1; length > 0; --length, begin = end, end = texts.size()) {
    for (std::size_t i = begin; i < end; ++i) {
      for (const char character : from) {
        texts.push_back(texts[i] + character);
      }
    }
  }
  return texts;
}

TEST(WildcardTest, AStarStaysInItsDirectory) {
  EXPECT_TRUE(fits("*.log", "a.log") && fits("*.log", ".log") && fits("a*", "a"));
  EXPECT_FALSE(fits("*.log", "d/a.log") || fits("*.log", "a.log.1") || fits("*", "a/"));
  EXPECT_TRUE(fits("*/b", "a/b"));
}

TEST(WildcardTest, TwoStarsLeaveIt) {
  EXPECT_TRUE(fits("**.log", "d/e/a.log") && fits("a/**", "a/b/c") && fits("**", ""));
  EXPECT_TRUE(fits("a/**/b", "a/x/y/b") && fits("a**b*c", "a/b/bxc"));
  EXPECT_FALSE(fits("a/**/b", "a/b") || fits("a**b*c", "a/b/x/c"));
}

TEST(WildcardTest, SetsHaveRangesAndClasses) {
  EXPECT_TRUE(fits("[a-c][!0-9]", "bx") && fits("[]]", "]") && fits("[!]]", "x"));
  EXPECT_TRUE(fits("[a-]", "-") && fits("[[:digit:]x]", "7") && fits("[[:digit:]x]", "x"));
  EXPECT_TRUE(fits("[\\]x]", "]") && fits("[^a]", "b") && fits("[!a]", "\n"));
  EXPECT_FALSE(fits("[a-c]", "d") || fits("[!a]", "a") || fits("[!a]", "/") || fits("[/]", "/"));
  EXPECT_FALSE(fits("[[:digit:]]", "a") || fits("[b-a]", "a"));
}

TEST(WildcardTest, NamedClassesAreThoseOfAscii) {
  const std::pair<const char*, int (*)(int)> classes[] = {
      {"alnum", std::isalnum}, {"alpha", std::isalpha}, {"blank", std::isblank},
      {"cntrl", std::iscntrl}, {"digit", std::isdigit}, {"graph", std::isgraph},
      {"lower", std::islower}, {"print", std::isprint}, {"punct", std::ispunct},
      {"space", std::isspace}, {"upper", std::isupper}, {"xdigit", std::isxdigit}};
  for (const auto& [name, has] : classes) {
    const Wildcard one("[[:" + std::string(name) + ":]]");
    for (char character = 0; character < 127; ++character) {
      const bool expected = has(character) != 0 && character != '/';
      EXPECT_EQ(one.matches(std::string(1, character)), expected) << name << int(character);
    }
  }
  EXPECT_TRUE(fits("[[:none:]", ":") && fits("[[:digit]", "d"));  // a set of these characters
  EXPECT_TRUE(fits("[[xalpha:]]", "x]"));
  EXPECT_FALSE(fits("[[xalpha:]]", "b"));
}

TEST(WildcardTest, ABackslashQuotesAndAnOpenBracketIsOrdinary) {
  EXPECT_TRUE(fits("\\*", "*") && fits("\\[a]", "[a]") && fits("a\\", "a\\") && fits("[a", "[a"));
  EXPECT_FALSE(fits("\\*", "a") || fits("\\\\", "\\\\"));
  EXPECT_TRUE(Wildcard::literal("a*[b]\\").matches("a*[b]\\"));
  EXPECT_FALSE(Wildcard::literal("*").matches("a"));
}

TEST(WildcardTest, ACharacterMayHaveSeveralBytes) {
  EXPECT_TRUE(fits("?", "\u00e4") && fits("[\u00e0-\u00ff]", "\u00e4") && fits("?", "\U0001f600"));
  EXPECT_FALSE(fits("??", "\u00e4"));
  // Bytes that are not valid in UTF-8 are one character each.
  for (const char* name : {"\xff\xfe", "\xc3(", "\xe2\x82", "\xc0\x80", "\xf8x"}) {
    EXPECT_TRUE(fits("??", name)) << name;
  }
  EXPECT_TRUE(fits("???", "\xed\xa0\x80") && fits("????", "\xf4\x90\x80\x80"));
  EXPECT_TRUE(fits("\xff", "\xff") && fits("[\xff]", "\xff"));
  EXPECT_FALSE(fits("\xff", "\xfe") || fits("[\xff]", "\xfe") || fits("\xe2", "\xe3"));
}

TEST(WildcardTest, ManyStarsTakeNoLongTime) {
  std::string pattern;
  for (int i = 0; i < 200; ++i) {
    pattern += "a*";
  }
  EXPECT_FALSE(Wildcard(pattern + "b").matches(std::string(2000, 'a')));
}

TEST(WildcardTest, AgreesWithASecondImplementation) {
  const std::vector<std::string> names = allTexts("ab/", 3);
  for (const std::string& pattern : allTexts("ab/*?[]!-\\", 4)) {
    const Wildcard wildcard(pattern);
    for (const std::string& name : names) {
      ASSERT_EQ(wildcard.matches(name), zell::test::naiveMatch(pattern, name))
          << pattern << " " << name;
    }
  }
}

// The system's function has no "**", and rejects a slash in brackets and a backslash at the end.
TEST(WildcardTest, AgreesWithTheSystem) {
  const std::vector<std::string> names = allTexts("a-]/", 3);
  for (const std::string& pattern : allTexts("a*?[]!-", 4)) {
    if (pattern.find("**") != std::string::npos) {
      continue;
    }
    const Wildcard wildcard(pattern);
    for (const std::string& name : names) {
      ASSERT_EQ(wildcard.matches(name), fnmatch(pattern.c_str(), name.c_str(), FNM_PATHNAME) == 0)
          << pattern << " " << name;
    }
  }
}

}  // namespace
}  // namespace runel
