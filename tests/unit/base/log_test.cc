// SPDX-License-Identifier: Apache-2.0
#include "base/log.h"

#include <cerrno>
#include <cwchar>
#include <string>

#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace zell::test {
namespace {

class LogTest : public ::testing::Test {
 protected:
  LogEntry only() {
    EXPECT_EQ(log_.entries().size(), 1U);
    return log_.entries().empty() ? LogEntry{-1, ""} : log_.entries().front();
  }

  LogCapture log_;
};

TEST_F(LogTest, PutsTheProcessIdInFront) {
  logLine(LOG_INFO, "listening on port %d", 5111);
  EXPECT_EQ(only(), (LogEntry{LOG_INFO, "(PID) listening on port 5111"}));
}

TEST_F(LogTest, PutsNothingInFrontOfAPlainLine) {
  logPlain(LOG_ERR, "(%d) daemon is already running", 0);
  EXPECT_EQ(only(), (LogEntry{LOG_ERR, "(0) daemon is already running"}));
}

TEST_F(LogTest, PassesEveryLevelOn) {
  for (const int level : {LOG_CRIT, LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG}) {
    logLine(level, "line");
    EXPECT_EQ(log_.entries().back().priority, level);
  }
}

TEST_F(LogTest, GivesTheFormatWhereTheArgumentsCannotBeShown) {
  logLine(LOG_INFO, "a %lc b", static_cast<std::wint_t>(0xd800));  // no character has this number
  EXPECT_EQ(only(), (LogEntry{LOG_INFO, "(PID) a %lc b"}));
}

TEST_F(LogTest, GivesTheErrorTextOfTheCall) {
  errno = ENOENT;
  logLine(LOG_ERR, "failed: %m");
  EXPECT_EQ(only().text, "(PID) failed: No such file or directory");
}

TEST_F(LogTest, GivesTheErrorTextInAPlainLine) {
  errno = EACCES;
  logPlain(LOG_ERR, "failed: %m");
  EXPECT_EQ(only().text, "failed: Permission denied");
}

TEST_F(LogTest, GivesTheErrorTextInALongLine) {
  const std::string payload(5000, 'x');
  errno = EMFILE;
  logLine(LOG_ERR, "%s: %m", payload.c_str());
  EXPECT_EQ(only().text, "(PID) " + payload + ": Too many open files");
}

TEST_F(LogTest, LeavesErrnoAsItWas) {
  const std::string payload(5000, 'x');
  errno = ENOSPC;
  logLine(LOG_INFO, "short");
  EXPECT_EQ(errno, ENOSPC);
  logLine(LOG_INFO, "%s", payload.c_str());
  EXPECT_EQ(errno, ENOSPC);
  logPlain(LOG_INFO, "short");
  EXPECT_EQ(errno, ENOSPC);
}

// The edges of the memory that short lines use: prefix and text together.
TEST_F(LogTest, KeepsALineWholeWhereItsMemoryChanges) {
  for (std::size_t length = 980; length < 1060; ++length) {
    const std::string payload(length, 'x');
    log_.clear();
    logLine(LOG_INFO, "%s", payload.c_str());
    EXPECT_EQ(only().text, "(PID) " + payload);
    log_.clear();
    logPlain(LOG_INFO, "%s", payload.c_str());
    EXPECT_EQ(only().text, payload);
  }
}

TEST_F(LogTest, CutsALineOfMoreThan128KibibytesTheProcessIdIncluded) {
  const std::size_t room = 131072 - ("(" + std::to_string(getpid()) + ") ").size();
  logLine(LOG_DEBUG, "<%s", std::string(room - 1, 'y').c_str());
  EXPECT_EQ(only().text, "(PID) <" + std::string(room - 1, 'y'));
  log_.clear();
  logLine(LOG_DEBUG, "<%s", std::string(room, 'y').c_str());
  EXPECT_EQ(only().text, "(PID) <" + std::string(room - 4, 'y') + "...");
}

TEST_F(LogTest, CutsAPlainLineOfMoreThan128Kibibytes) {
  logPlain(LOG_DEBUG, "<%s", std::string(131071, 'y').c_str());
  EXPECT_EQ(only().text, "<" + std::string(131071, 'y'));
  log_.clear();
  logPlain(LOG_DEBUG, "<%s", std::string(131072, 'y').c_str());
  EXPECT_EQ(only().text, "<" + std::string(131068, 'y') + "...");
}

TEST_F(LogTest, CutsALineOfAMegabyteToTheSameLength) {
  logPlain(LOG_DEBUG, "%s", std::string(1 << 20, 'y').c_str());
  EXPECT_EQ(only().text, std::string(131069, 'y') + "...");
}

TEST_F(LogTest, TakesALineWithoutText) {
  logPlain(LOG_INFO, "%s", "");
  EXPECT_EQ(only().text, "");
}

TEST_F(LogTest, ReadsPercentSignsInArgumentsAsText) {
  logLine(LOG_INFO, "%s", "100% %s %n");
  EXPECT_EQ(only().text, "(PID) 100% %s %n");
}

TEST_F(LogTest, EndsAtAZeroByte) {
  logLine(LOG_INFO, "'%s'", "ab\0cd");
  EXPECT_EQ(only().text, "(PID) 'ab'");
}

// The capture shows "(PID) " only for the number of the process that logs.
TEST_F(LogTest, ShowsTheNewNumberAfterAFork) {
  logLine(LOG_INFO, "before");
  const pid_t child = fork();
  if (child == 0) {
    logLine(LOG_INFO, "after");
    _exit(log_.count("(PID) after") == 1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zell::test
