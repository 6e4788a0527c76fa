// SPDX-License-Identifier: Apache-2.0
// The lines of the log.
#include "gateway/app/log.h"

#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace runelgw {
namespace {

std::string logged(LogLevel highest, bool journal, LogLevel level, const std::string& text) {
  std::string written;
  const Log log(highest, journal, [&written](std::string_view line) { written += line; });
  log.line(level, text);
  return written;
}

TEST(LogTest, BeginsEachLineWithItsPriorityInTheJournal) {
  EXPECT_EQ(logged(LogLevel::debug, true, LogLevel::error, "x"), "<3>x\n");
  EXPECT_EQ(logged(LogLevel::debug, true, LogLevel::warning, "x"), "<4>x\n");
  EXPECT_EQ(logged(LogLevel::debug, true, LogLevel::info, "x"), "<6>x\n");
  EXPECT_EQ(logged(LogLevel::debug, true, LogLevel::debug, "x"), "<7>x\n");
}

TEST(LogTest, NamesTheLevelElsewhere) {
  EXPECT_EQ(logged(LogLevel::debug, false, LogLevel::error, "x"), "error: x\n");
  EXPECT_EQ(logged(LogLevel::debug, false, LogLevel::warning, "x"), "warning: x\n");
  EXPECT_EQ(logged(LogLevel::debug, false, LogLevel::info, "x"), "info: x\n");
  EXPECT_EQ(logged(LogLevel::debug, false, LogLevel::debug, "x"), "debug: x\n");
}

TEST(LogTest, LeavesOutWhatIsAboveItsLevel) {
  EXPECT_EQ(logged(LogLevel::warning, true, LogLevel::info, "x"), "");
  EXPECT_EQ(logged(LogLevel::warning, true, LogLevel::warning, "x"), "<4>x\n");
}

TEST(LogTest, WritesNoLineThatADeviceCouldForge) {
  EXPECT_EQ(logged(LogLevel::info, true, LogLevel::info, "a\n<3>b"), "<6>a\\x0a<3>b\n");
  EXPECT_EQ(escapedForLog("gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");
  EXPECT_EQ(escapedForLog("\x1b[31m\t\x7f"), "\\x1b[31m\\x09\\x7f");
  EXPECT_EQ(escapedForLog("\xff\xc3"), "\\xff\\xc3");
  EXPECT_EQ(escapedForLog("\xc2\x9b\xe2\x80\xa8\xe2\x80\xa9"),
            "\\xc2\\x9b\\xe2\\x80\\xa8\\xe2\\x80\\xa9");
  EXPECT_EQ(escapedForLog("a\\x0a"), "a\\\\x0a");
  EXPECT_EQ(escapedForLog(std::string("\0", 1)), "\\x00");
}

TEST(LogTest, KnowsTheJournalByItsDeviceAndInode) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  struct stat status {};
  ASSERT_EQ(::fstat(ends[1], &status), 0);
  const std::string name = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  EXPECT_TRUE(isJournal(ends[1], name.c_str()));
  EXPECT_FALSE(isJournal(ends[1], (name + "0").c_str()));
  EXPECT_FALSE(isJournal(ends[1], ""));
  EXPECT_FALSE(isJournal(ends[1], nullptr));
  ::close(ends[0]);
  ::close(ends[1]);
}

}  // namespace
}  // namespace runelgw
