// SPDX-License-Identifier: Apache-2.0
// Any bytes, made fit for a terminal or for JSON.
#include "output/text.h"

#include <string>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace zell::ctl {
namespace {

TEST(TextForPeopleTest, KeepsWhatATerminalShows) {
  EXPECT_EQ(forPeople("plain, \xc3\xa9\xe2\x82\xac\xf0\x9f\x99\x82 'quoted'"),
            "plain, \xc3\xa9\xe2\x82\xac\xf0\x9f\x99\x82 'quoted'");
}

TEST(TextForPeopleTest, EscapesWhatATerminalActsOn) {
  EXPECT_EQ(forPeople("a\nb\tc\rd\x1b[31m\x7f"), "a\\nb\\tc\\rd\\x1b[31m\\x7f");
  EXPECT_EQ(forPeople(std::string(1, '\0')), "\\x00");
}

TEST(TextForPeopleTest, EscapesTheBackslashSoThatItCanBeReadBack) {
  EXPECT_EQ(forPeople("\\n"), "\\\\n");
}

TEST(TextForPeopleTest, EscapesTheControlCharactersBehindAscii) {
  EXPECT_EQ(forPeople("\xc2\x9b"), "\\xc2\\x9b");
}

TEST(TextForPeopleTest, EscapesMarksThatTurnTheDirectionOfWriting) {
  EXPECT_EQ(forPeople("\xe2\x80\xae"), "\\xe2\\x80\\xae");
  EXPECT_EQ(forPeople("\xe2\x81\xa6"), "\\xe2\\x81\\xa6");
}

TEST(TextForPeopleTest, EscapesWhatIsNoUtf8) {
  EXPECT_EQ(forPeople("\xff"), "\\xff");
  EXPECT_EQ(forPeople("\xc3"), "\\xc3") << "cut short";
  EXPECT_EQ(forPeople("\xc0\xaf"), "\\xc0\\xaf") << "too long a form";
  EXPECT_EQ(forPeople("\xe0\x80\x80"), "\\xe0\\x80\\x80") << "too long a form";
  EXPECT_EQ(forPeople("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "a surrogate";
  EXPECT_EQ(forPeople("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond the last one";
}

TEST(TextJsonTest, BytesThatAreTextStayText) {
  Json object;
  putBytes(object, "key", "a\n\xc3\xa9");
  EXPECT_EQ(object.dump(), "{\"key\":\"a\\n\xc3\xa9\"}");
}

TEST(TextJsonTest, OtherBytesComeInBase64UnderAnotherName) {
  Json object;
  putBytes(object, "key", "\xff\xfe");
  EXPECT_EQ(object.dump(), "{\"key_base64\":\"//4=\"}");
  for (const auto& [bytes, text] : {std::pair<std::string, std::string>{"\xff", "/w=="},
                                    {"\xff\xfe\xfd", "//79"},
                                    {"\xff\xfe\xfd\x01", "//79AQ=="}}) {
    Json other;
    putBytes(other, "k", bytes);
    EXPECT_EQ(other["k_base64"], text);
  }
}

TEST(TextCutTest, CountsCharactersAndCutsNone) {
  EXPECT_EQ(cutTo("\xc3\xa9\xc3\xa9\xc3\xa9", 2), "\xc3\xa9\xc3\xa9");
  EXPECT_EQ(cutTo("ab", 5), "ab");
  EXPECT_EQ(cutTo("ab", 0), "");
}

TEST(TextSizeTest, UsesTheUnitThatFits) {
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
}  // namespace zell::ctl
