// SPDX-License-Identifier: Apache-2.0
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zell/string_helpers.h>

namespace zell {
namespace {

std::string allBytes() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes.push_back(static_cast<char>(byte));
  }
  return bytes;
}

std::string trimmed(std::string text) {
  trimWhiteSpace(text);
  return text;
}

std::string withoutBogus(std::string text) {
  trimBogusChars(text);
  return text;
}

std::string withoutFirstWord(std::string text) {
  trimFirstWord(text);
  return text;
}

std::string listText(const std::vector<std::string>& strings) {
  std::ostringstream out;
  printStringVec(out, "StringVec", strings);
  return out.str();
}

TEST(TrimOutputTest, KeepsAShortText) {
  EXPECT_EQ(trimOutput("", 60), "");
  EXPECT_EQ(trimOutput("short", 60), "short");
}

TEST(TrimOutputTest, ATextOfTheLimitIsShownWhole) {
  const std::string text = std::string(59, 'a') + "z";
  EXPECT_EQ(trimOutput(text, 60), text);
}

TEST(TrimOutputTest, ALongerTextEndsInThreeDots) {
  EXPECT_EQ(trimOutput(std::string(61, 'a'), 60), std::string(57, 'a') + "...");
  EXPECT_EQ(trimOutput(std::string(100000, 'a'), 60), std::string(57, 'a') + "...");
}

TEST(TrimOutputTest, ControlBytesBecomeDots) {
  EXPECT_EQ(trimOutput("a\tb\r\n\x01\x7f\x1f"
                       "c",
                       60),
            "a.b.....c");
  EXPECT_EQ(trimOutput(std::string("\0x", 2), 60), ".x");
}

TEST(TrimOutputTest, AllOtherBytesAreShownUnchanged) {
  const std::string shown = trimOutput(allBytes(), 256);
  EXPECT_EQ(shown, std::string(32, '.') + allBytes().substr(32, 95) + '.' + allBytes().substr(128));
}

TEST(TrimOutputTest, NeverReturnsMoreThanTheLimit) {
  EXPECT_EQ(trimOutput("abcdef", 4), "a...");
  EXPECT_EQ(trimOutput("abcdef", 3), "...");
  EXPECT_EQ(trimOutput("abcdef", 2), "..");
  EXPECT_EQ(trimOutput("abcdef", 0), "");
  EXPECT_EQ(trimOutput("abcdef", -1), "");
}

TEST(TrimBogusCharsTest, RemovesControlBytesExceptTheTab) {
  EXPECT_EQ(withoutBogus("a\tb\r\n\x01\x7f"
                         "c"),
            "a\tbc");
  EXPECT_EQ(withoutBogus(allBytes()), '\t' + allBytes().substr(32, 95) + allBytes().substr(128));
}

TEST(TrimBogusCharsTest, MayLeaveNothing) {
  EXPECT_EQ(withoutBogus("\r\n"), "");
  EXPECT_EQ(withoutBogus(""), "");
}

TEST(TrimWhiteSpaceTest, StripsOnlyBothEnds) {
  EXPECT_EQ(trimmed(" \t\r\n\v\fa b\tc \t\r\n\v\f"), "a b\tc");
  EXPECT_EQ(trimmed("abc"), "abc");
}

TEST(TrimWhiteSpaceTest, MayLeaveNothing) {
  EXPECT_EQ(trimmed(" \t\r\n\v\f"), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST(TrimWhiteSpaceTest, OtherBytesAreNotWhiteSpace) {
  const std::string text("\0a\x85\xa0", 4);
  EXPECT_EQ(trimmed(text), text);
}

TEST(FirstWordTest, EndsAtAnyWhiteSpace) {
  for (const char space : {' ', '\t', '\r', '\n', '\v', '\f'}) {
    const std::string text = std::string("word") + space + "rest " + space;
    EXPECT_EQ(firstWord(text), "word");
    EXPECT_EQ(withoutFirstWord(text), space + ("rest " + std::string(1, space)));
  }
}

TEST(FirstWordTest, MayBeTheWholeText) {
  EXPECT_EQ(firstWord("word"), "word");
  EXPECT_EQ(withoutFirstWord("word"), "");
  EXPECT_EQ(firstWord(""), "");
  EXPECT_EQ(withoutFirstWord(""), "");
}

TEST(FirstWordTest, IsEmptyBeforeLeadingWhiteSpace) {
  EXPECT_EQ(firstWord(" word"), "");
  EXPECT_EQ(withoutFirstWord(" word"), " word");
}

TEST(PrintStringVecTest, WritesTheCountThenEachStringWithItsLength) {
  EXPECT_EQ(listText({"bin", "etc", "a name\nwith a newline"}),
            "StringVec 3\n3:bin\n3:etc\n21:a name\nwith a newline\n");
}

TEST(PrintStringVecTest, WritesAnEmptyListAndEmptyStrings) {
  EXPECT_EQ(listText({}), "StringVec 0\n");
  EXPECT_EQ(listText({"", ""}), "StringVec 2\n0:\n0:\n");
}

TEST(PrintStringVecTest, WritesStringsUnchanged) {
  EXPECT_EQ(listText({allBytes()}), "StringVec 1\n256:" + allBytes() + "\n");
}

TEST(PrintStringVecTest, PutsTheLabelInFront) {
  std::ostringstream out;
  out << "before ";
  printStringVec(out, "Names", {"x"});
  EXPECT_EQ(out.str(), "before Names 1\n1:x\n");
}

}  // namespace
}  // namespace zell
