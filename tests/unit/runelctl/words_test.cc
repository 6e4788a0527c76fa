// SPDX-License-Identifier: Apache-2.0
// Splitting of lines into words, and quoting of words.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "shell/words.h"

namespace runelctl {
namespace {

using Words = std::vector<std::string>;

TEST(WordsTest, AreSeparatedByBlanks) {
  EXPECT_EQ(cutLine("  ls\t-l   /etc \r\n").words, (Words{"ls", "-l", "/etc"}));
  EXPECT_EQ(cutLine("").words, Words());
  EXPECT_EQ(cutLine(" \t ").words, Words());
}

TEST(WordsTest, MayContainQuotedAndEscapedBlanks) {
  EXPECT_EQ(cutLine("a\\ b 'c  d' \"e  f\"").words, (Words{"a b", "c  d", "e  f"}));
  EXPECT_EQ(cutLine("a'b'\"c\"d").words, (Words{"abcd"})) << "adjacent parts are one word";
  EXPECT_EQ(cutLine("'' \"\"").words, (Words{"", ""})) << "an empty word is a word";
}

TEST(WordsTest, ABackslashIsLiteralOnlyInSingleQuotes) {
  EXPECT_EQ(cutLine(R"('\n\' "\"\\" \'\")").words, (Words{R"(\n\)", R"("\)", R"('")"}));
}

TEST(WordsTest, NothingIsExpanded) {
  EXPECT_EQ(cutLine("$HOME *.c ~ `x` a;b|c").words, (Words{"$HOME", "*.c", "~", "`x`", "a;b|c"}));
}

TEST(WordsTest, ACommentStartsOnlyAtTheStartOfAWord) {
  EXPECT_EQ(cutLine("ls # all of them").words, (Words{"ls"}));
  EXPECT_EQ(cutLine("ls a#b '#' \\#").words, (Words{"ls", "a#b", "#", "#"}));
  EXPECT_FALSE(cutLine("ls # it's open?").open);
}

TEST(WordsTest, AnUnterminatedQuoteOrEscapeIsReported) {
  for (const char* text : {"'a", "\"a", "a\\", "a '", "\"a\\\""}) {
    EXPECT_TRUE(cutLine(text).open) << text;
  }
  for (const char* text : {"a", "'a'", "\"\\\"\"", "a\\\\"}) {
    EXPECT_FALSE(cutLine(text).open) << text;
  }
}

TEST(WordsTest, TheStartOfTheLastWordIsReported) {
  const Line within = cutLine("cat  'a b");
  EXPECT_TRUE(within.inWord);
  EXPECT_EQ(within.last, 5U);
  EXPECT_EQ(within.words.back(), "a b");
  const Line behind = cutLine("cat ");
  EXPECT_FALSE(behind.inWord);
  EXPECT_EQ(behind.last, 4U);
}

TEST(WordsTest, AnyBytesAreAccepted) {
  EXPECT_EQ(cutLine("\xff\x01 \xc3\xa4").words, (Words{"\xff\x01", "\xc3\xa4"}));
}

TEST(QuoteWordTest, AQuotedWordIsParsedAsTheSameWord) {
  for (const std::string word :
       {"plain", "", "a b", "'", "\"", "\\", "#a", "a#", "\t", "\xff", "a\\ 'b' \"c\" #"}) {
    const Line line = cutLine("x " + quoteWord(word) + " y");
    EXPECT_EQ(line.words, (Words{"x", word, "y"})) << quoteWord(word);
    EXPECT_FALSE(line.open);
  }
}

TEST(QuoteWordTest, APlainWordIsNotQuoted) {
  EXPECT_EQ(quoteWord("/etc/some-file.conf"), "/etc/some-file.conf");
}

}  // namespace
}  // namespace runelctl
