// SPDX-License-Identifier: Apache-2.0
// Conversion of arbitrary bytes for a terminal and for JSON.
#include "output/text.h"

#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "output/mode_text.h"
#include "output/table.h"
#include "text/utf8.h"

namespace runelctl {
namespace {

TEST(TerminalSafeTest, KeepsPrintableCharacters) {
  EXPECT_EQ(terminalSafe("plain, \xc3\xa9\xe2\x82\xac\xf0\x9f\x99\x82 'quoted'"),
            "plain, \xc3\xa9\xe2\x82\xac\xf0\x9f\x99\x82 'quoted'");
}

TEST(TerminalSafeTest, EscapesControlCharacters) {
  EXPECT_EQ(terminalSafe("a\nb\tc\rd\x1b[31m\x7f"), "a\\nb\\tc\\rd\\x1b[31m\\x7f");
  EXPECT_EQ(terminalSafe(std::string(1, '\0')), "\\x00");
}

TEST(TerminalSafeTest, EscapesTheBackslash) {
  EXPECT_EQ(terminalSafe("\\n"), "\\\\n");
}

TEST(TerminalSafeTest, EscapesC1ControlCharacters) {
  EXPECT_EQ(terminalSafe("\xc2\x9b"), "\\xc2\\x9b");
}

TEST(TerminalSafeTest, EscapesTextDirectionMarks) {
  EXPECT_EQ(terminalSafe("\xe2\x80\xae"), "\\xe2\\x80\\xae");
  EXPECT_EQ(terminalSafe("\xe2\x81\xa6"), "\\xe2\\x81\\xa6");
}

std::string encoded(std::uint32_t code) {
  const auto byte = [](std::uint32_t value) { return std::string(1, static_cast<char>(value)); };
  if (code < 0x80) {
    return byte(code);
  }
  const std::string last = byte(0x80 | (code & 0x3f));
  return code < 0x800 ? byte(0xc0 | (code >> 6)) + last
                      : byte(0xe0 | (code >> 12)) + byte(0x80 | ((code >> 6) & 0x3f)) + last;
}

TEST(TerminalSafeTest, EscapesJustTheCharactersThatActOnATerminal) {
  std::set<std::uint32_t> acting = {'\\', 0x61c, 0x200e, 0x200f, 0xfeff};
  const std::pair<std::uint32_t, std::uint32_t> ranges[] = {
      {0, 0x1f}, {0x7f, 0x9f}, {0x2028, 0x202e}, {0x2066, 0x2069}, {0xd800, 0xdfff}};
  for (const auto& [first, last] : ranges) {
    for (std::uint32_t code = first; code <= last; ++code) {
      acting.insert(code);
    }
  }
  for (std::uint32_t code = 0; code <= 0xffff; ++code) {
    ASSERT_EQ(terminalSafe(encoded(code)) != encoded(code), acting.count(code) == 1) << code;
  }
}

TEST(TerminalSafeTest, EscapesInvalidUtf8) {
  EXPECT_EQ(terminalSafe("\xff"), "\\xff");
  EXPECT_EQ(terminalSafe("\xc3"), "\\xc3") << "truncated";
  EXPECT_EQ(terminalSafe("\xc0\xaf"), "\\xc0\\xaf") << "overlong form";
  EXPECT_EQ(terminalSafe("\xe0\x80\x80"), "\\xe0\\x80\\x80") << "overlong form";
  EXPECT_EQ(terminalSafe("\xe0\x81\x81"), "\\xe0\\x81\\x81") << "a letter in three bytes";
  EXPECT_EQ(terminalSafe("\xf0\x80\x81\x81"), "\\xf0\\x80\\x81\\x81") << "in four bytes";
  EXPECT_EQ(terminalSafe("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "a surrogate";
  EXPECT_EQ(terminalSafe("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "above 0x10ffff";
}

std::string visible(const std::string& text) {
  TerminalText part;
  const std::string shown = part.add(text);
  return shown + part.end();
}

TEST(TerminalTextTest, KeepsLinesTabsBackslashesAndPrintableUtf8) {
  const std::string text = "a\tb\\n\r\n\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82\n";
  EXPECT_EQ(visible(text), text);
}

TEST(TerminalTextTest, EscapesControlCharacters) {
  EXPECT_EQ(visible("\x1b[31m\x07\x08\x7f"), "\\x1b[31m\\x07\\x08\\x7f");
  EXPECT_EQ(visible(std::string(1, '\0')), "\\x00");
  EXPECT_EQ(visible("\xc2\x9b"
                    "31m"),
            "\\xc2\\x9b31m");
  EXPECT_EQ(visible("\xe2\x80\xae"), "\\xe2\\x80\\xae");
}

TEST(TerminalTextTest, EscapesACarriageReturnThatDoesNotEndALine) {
  EXPECT_EQ(visible("secret\rshown\n"), "secret\\rshown\n");
  EXPECT_EQ(visible("a\r\r\nb\r"), "a\\r\r\nb\\r");
}

TEST(TerminalTextTest, EscapesInvalidUtf8) {
  EXPECT_EQ(visible("\xff\xc3(\xe2\x82"), "\\xff\\xc3(\\xe2\\x82");
  EXPECT_EQ(visible("\xed\xa0\x80\xf5"), "\\xed\\xa0\\x80\\xf5");
}

TEST(TerminalTextTest, IsTheSameHoweverTheTextIsDivided) {
  std::mt19937 random(1);
  const std::string parts[] = {"\r",   "\n", "\xe2", "\x82", "\xac", "\xf0", "\x9f", "\x99",
                               "\x1b", "a",  "\\",   "\xc2", "\x9b", "\t",   "\xff", "plain"};
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    std::string shown;
    TerminalText divided;
    for (int i = 0; i < 8; ++i) {
      const std::string& part = parts[random() % std::size(parts)];
      text += part;
      shown += divided.add(part);
    }
    shown += divided.end();
    ASSERT_EQ(shown, visible(text)) << terminalSafe(text);
    ASSERT_TRUE(zell::isUtf8(shown));
    ASSERT_EQ(visible(shown), shown) << "nothing is left to escape";
  }
}

TEST(TerminalTextTest, JsonStaysEqual) {
  Json object;
  object["key"] = "\xc2\x9b \x7f \xe2\x80\xae \xef\xbb\xbf \x1b \xc3\xa9";
  const std::string shown = jsonLine(object, true);
  EXPECT_EQ(visible(shown), shown);
  EXPECT_EQ(Json::parse(shown), object);
  EXPECT_NE(shown.find("\xc3\xa9"), std::string::npos);
  EXPECT_NE(jsonLine(object, false).find("\xc2\x9b"), std::string::npos);
}

TEST(ModeTextTest, SpecialBitsReplaceTheRightToExecute) {
  EXPECT_EQ(modeText('-', 0640), "-rw-r-----");
  EXPECT_EQ(modeText('d', 07777), "drwsrwsrwt");
  EXPECT_EQ(modeText('d', 01776), "drwxrwxrwT");
  EXPECT_EQ(modeText('-', 06000), "---S--S---");
  EXPECT_EQ(octalMode(0101777), "1777");
}

TEST(TextTableTest, AlignsColumnsAndEscapesCells) {
  EXPECT_EQ(tableText({{"A", "BB"}, {"\xc3\xa9\xc3\xa9", "x"}, {"\x1b", ""}}),
            "A     BB\n\xc3\xa9\xc3\xa9    x\n\\x1b\n");
  EXPECT_EQ(tableText({}), "");
}

TEST(UnfinishedCharacterTest, CountsTheBytesThatMayBeCompleted) {
  EXPECT_EQ(unfinishedCharacter(""), 0U);
  EXPECT_EQ(unfinishedCharacter("plain"), 0U);
  EXPECT_EQ(unfinishedCharacter("\xc3\xa9\xe2\x82\xac\xf0\x9f\x99\x82"), 0U);
  EXPECT_EQ(unfinishedCharacter("x\xc3"), 1U);
  EXPECT_EQ(unfinishedCharacter("x\xe2\x82"), 2U);
  EXPECT_EQ(unfinishedCharacter("\xf0\x9f\x99"), 3U);
  EXPECT_EQ(unfinishedCharacter("\x80\x80\x80\x80"), 0U);
}

TEST(TextJsonTest, Utf8IsUnchanged) {
  Json object;
  putBytes(object, "key", "a\n\xc3\xa9");
  EXPECT_EQ(object.dump(), "{\"key\":\"a\\n\xc3\xa9\"}");
  moveBytes(object, "moved", "a");
  EXPECT_EQ(object["moved"], "a");
}

TEST(TextJsonTest, OtherBytesAreBase64UnderAnotherName) {
  Json object;
  putBytes(object, "key", "\xff\xfe");
  EXPECT_EQ(object.dump(), "{\"key_base64\":\"//4=\"}");
  for (const auto& [bytes, text] : {std::pair<std::string, std::string>{"\xff", "/w=="},
                                    {"\xff\xfe\xfd", "//79"},
                                    {"\xff\xfe\xfd\x01", "//79AQ=="}}) {
    Json other;
    putBytes(other, "k", bytes);
    EXPECT_EQ(other["k_base64"], text);
    moveBytes(other, "moved", std::string(bytes));
    EXPECT_EQ(other["moved_base64"], text);
  }
}

TEST(TextCutTest, CountsCompleteCharacters) {
  EXPECT_EQ(cutTo("\xc3\xa9\xc3\xa9\xc3\xa9", 2), "\xc3\xa9\xc3\xa9");
  EXPECT_EQ(cutTo("ab", 5), "ab");
  EXPECT_EQ(cutTo("ab", 0), "");
}

TEST(TextSizeTest, UsesTheLargestFittingUnit) {
  EXPECT_EQ(sizeText(0), "0 B");
  EXPECT_EQ(sizeText(1023), "1023 B");
  EXPECT_EQ(sizeText(1536), "1.5 KiB");
  EXPECT_EQ(sizeText(104857600), "100 MiB");
  EXPECT_EQ(sizeText(~0ULL), "16.0 EiB");
}

TEST(TextHexDumpTest, HasOffsetsBytesAndCharacters) {
  EXPECT_EQ(hexDump(std::string("\x01"
                                "42\x02"
                                "0123456789abcdef",
                                20)),
            "00000000  01 34 32 02 30 31 32 33  34 35 36 37 38 39 61 62  |.42.0123456789ab|\n"
            "00000010  63 64 65 66                                       |cdef|\n");
  EXPECT_EQ(hexDump(""), "");
}

}  // namespace
}  // namespace runelctl
