// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <limits>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <zell/string_helpers.h>

namespace zell {
namespace {

std::string textOf(const struct stat& st) {
  std::ostringstream out;
  printStat(out, st);
  return out.str();
}

struct stat sample() {
  struct stat st {};
  st.st_dev = 2049;
  st.st_ino = 131073;
  st.st_mode = S_IFREG | 0644;
  st.st_nlink = 1;
  st.st_uid = 1000;
  st.st_gid = 100;
  st.st_rdev = 0;
  st.st_size = 158;
  st.st_blksize = 4096;
  st.st_blocks = 8;
  st.st_atim = {1700000000, 5};
  st.st_mtim = {1700000001, 123456789};
  st.st_ctim = {1700000002, 999999999};
  return st;
}

TEST(PrintStatTest, WritesOneLineOfNamedFields) {
  EXPECT_EQ(textOf(sample()),
            "dev=2049 ino=131073 mode=0100644 nlink=1 uid=1000 gid=100 rdev=0 size=158 "
            "blksize=4096 blocks=8 atime=1700000000.000000005 mtime=1700000001.123456789 "
            "ctime=1700000002.999999999\n");
}

TEST(PrintStatTest, WritesZerosInTheSameForm) {
  EXPECT_EQ(textOf({}),
            "dev=0 ino=0 mode=0000000 nlink=0 uid=0 gid=0 rdev=0 size=0 blksize=0 blocks=0 "
            "atime=0.000000000 mtime=0.000000000 ctime=0.000000000\n");
}

TEST(PrintStatTest, WritesTheModeInSevenOctalDigits) {
  struct stat st {};
  st.st_mode = S_IFIFO | 07777;
  EXPECT_NE(textOf(st).find(" mode=0017777 "), std::string::npos);
  st.st_mode = S_IFSOCK | 0700;
  EXPECT_NE(textOf(st).find(" mode=0140700 "), std::string::npos);
}

TEST(PrintStatTest, WritesTheLargestNumbersWhole) {
  struct stat st = sample();
  st.st_dev = std::numeric_limits<dev_t>::max();
  st.st_ino = std::numeric_limits<ino_t>::max();
  st.st_uid = std::numeric_limits<uid_t>::max();
  st.st_size = std::numeric_limits<off_t>::max();
  st.st_blocks = std::numeric_limits<blkcnt_t>::max();
  const std::string text = textOf(st);
  EXPECT_EQ(text.find("dev=18446744073709551615 ino=18446744073709551615 "), 0u);
  EXPECT_NE(text.find(" uid=4294967295 "), std::string::npos);
  EXPECT_NE(text.find(" size=9223372036854775807 "), std::string::npos);
  EXPECT_NE(text.find(" blocks=9223372036854775807 "), std::string::npos);
}

TEST(PrintStatTest, EveryLineFitsForAnyNumbers) {
  struct stat st {};
  std::fill_n(reinterpret_cast<char*>(&st), sizeof st, '\x80');
  const std::string text = textOf(st);
  EXPECT_EQ(text.back(), '\n');
  EXPECT_NE(text.find(" ctime=-9187201950435737472."), std::string::npos);
}

TEST(PrintStatTest, ATimeBefore1970HasNegativeSecondsAndPositiveNanoseconds) {
  struct stat st {};
  st.st_mtim = {-2, 500000000};
  EXPECT_NE(textOf(st).find(" mtime=-2.500000000 "), std::string::npos);
}

TEST(PrintStatTest, ShowsModeAndDeviceNumberOfDevNull) {
  struct stat st {};
  ASSERT_EQ(stat("/dev/null", &st), 0);
  const std::string text = textOf(st);
  EXPECT_NE(text.find(" mode=0020666 "), std::string::npos) << text;
  EXPECT_NE(text.find(" rdev=259 "), std::string::npos) << text;
}

}  // namespace
}  // namespace zell
