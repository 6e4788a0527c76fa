// SPDX-License-Identifier: Apache-2.0
#include "base/file_mode.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace zell {
namespace {

TEST(FileModeTest, EveryTypeHasItsLetter) {
  EXPECT_EQ(typeLetter(S_IFREG | 0644), '-');
  EXPECT_EQ(typeLetter(S_IFDIR | 07777), 'd');
  EXPECT_EQ(typeLetter(S_IFLNK | 0777), 'l');
  EXPECT_EQ(typeLetter(S_IFCHR), 'c');
  EXPECT_EQ(typeLetter(S_IFBLK), 'b');
  EXPECT_EQ(typeLetter(S_IFIFO), 'p');
  EXPECT_EQ(typeLetter(S_IFSOCK), 's');
}

TEST(FileModeTest, AnUnknownTypeHasTheLetterOfARegularFile) {
  EXPECT_EQ(typeLetter(0), '-');
  EXPECT_EQ(typeLetter(0030000), '-');
}

TEST(FileModeTest, TheBitsAreThoseOfTheSystem) {
  EXPECT_EQ(kAccessBits, S_IRWXU | S_IRWXG | S_IRWXO);
  EXPECT_EQ(kPermissionBits, kAccessBits | S_ISUID | S_ISGID | S_ISVTX);
}

}  // namespace
}  // namespace zell
