// SPDX-License-Identifier: Apache-2.0
// Characters that the parser of TOML files must not see.
#include "text/stray_character.h"

#include <optional>

#include <gtest/gtest.h>

namespace zell {
namespace {

TEST(StrayCharacterTest, AllowsAnyCharacterInStringsAndComments) {
  EXPECT_EQ(lineOfStrayCharacter(""), std::nullopt);
  EXPECT_EQ(lineOfStrayCharacter("a = \"\xc3\xa9\" # \xc3\xa9\nb = '\xc3\xa9'\n"), std::nullopt);
  EXPECT_EQ(lineOfStrayCharacter("a = \"\"\"\n\xc3\xa9\"\xc3\xa9\n\"\"\"\nb = '''\n\xc3\xa9'''"),
            std::nullopt);
  EXPECT_EQ(lineOfStrayCharacter("a = \"\\\"\xc3\xa9\"\n"), std::nullopt) << "an escaped quote";
}

TEST(StrayCharacterTest, TellsTheLineOfACharacterElsewhere) {
  EXPECT_EQ(lineOfStrayCharacter("\xc3\xa9 = 1"), 1);
  EXPECT_EQ(lineOfStrayCharacter("a = 1\n\nb\xe2\x80\x83= 2\n"), 3);
  EXPECT_EQ(lineOfStrayCharacter("a = \"\"\"\n\n\"\"\"\nb = \xc3\xa9\n"), 4);
}

TEST(StrayCharacterTest, EndsAnUnfinishedStringWithItsLine) {
  EXPECT_EQ(lineOfStrayCharacter("a = \"x\n\xc3\xa9\n"), 2);
}

TEST(StrayCharacterTest, AllowsAByteOrderMarkAtTheStartOnly) {
  EXPECT_EQ(lineOfStrayCharacter("\xef\xbb\xbf"
                                 "a = 1\n"),
            std::nullopt);
  EXPECT_EQ(lineOfStrayCharacter("a = 1\n\xef\xbb\xbf\n"), 2);
}

}  // namespace
}  // namespace zell
