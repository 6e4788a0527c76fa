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

TEST_F(LogTest, PrefixesTheProcessId) {
  logLine(LOG_INFO, "listening on port %d", 5111);
  EXPECT_EQ(only(), (LogEntry{LOG_INFO, "(PID) listening on port 5111"}));
}

TEST_F(LogTest, DoesNotPrefixAPlainLine) {
  logPlain(LOG_ERR, "(%d) daemon is already running", 0);
  EXPECT_EQ(only(), (LogEntry{LOG_ERR, "(0) daemon is already running"}));
}

TEST_F(LogTest, PassesEveryLevelToSyslog) {
  for (const int level : {LOG_CRIT, LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG}) {
    logLine(level, "line");
    EXPECT_EQ(log_.entries().back().priority, level);
  }
}

TEST_F(LogTest, LogsTheFormatWhenFormattingFails) {
  logLine(LOG_INFO, "a %lc b", static_cast<std::wint_t>(0xd800));  // not a valid character
  EXPECT_EQ(only(), (LogEntry{LOG_INFO, "(PID) a %lc b"}));
}

TEST_F(LogTest, LogsTheErrorTextOfTheCall) {
  errno = ENOENT;
  logLine(LOG_ERR, "failed: %m");
  EXPECT_EQ(only().text, "(PID) failed: No such file or directory");
}

TEST_F(LogTest, LogsTheErrorTextInAPlainLine) {
  errno = EACCES;
  logPlain(LOG_ERR, "failed: %m");
  EXPECT_EQ(only().text, "failed: Permission denied");
}

TEST_F(LogTest, LogsTheErrorTextInALongLine) {
  const std::string payload(5000, 'x');
  errno = EMFILE;
  logLine(LOG_ERR, "%s: %m", payload.c_str());
  EXPECT_EQ(only().text, "(PID) " + payload + ": Too many open files");
}

TEST_F(LogTest, PreservesErrno) {
  const std::string payload(5000, 'x');
  errno = ENOSPC;
  logLine(LOG_INFO, "short");
  EXPECT_EQ(errno, ENOSPC);
  logLine(LOG_INFO, "%s", payload.c_str());
  EXPECT_EQ(errno, ENOSPC);
  logPlain(LOG_INFO, "short");
  EXPECT_EQ(errno, ENOSPC);
}

// Lengths around the size of the stack buffer for short lines, including the prefix.
TEST_F(LogTest, KeepsALineWholeAroundTheBufferSize) {
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

TEST_F(LogTest, TruncatesALineAt128KibibytesIncludingTheProcessId) {
  const std::size_t room = 131072 - ("(" + std::to_string(getpid()) + ") ").size();
  logLine(LOG_DEBUG, "<%s", std::string(room - 1, 'y').c_str());
  EXPECT_EQ(only().text, "(PID) <" + std::string(room - 1, 'y'));
  log_.clear();
  logLine(LOG_DEBUG, "<%s", std::string(room, 'y').c_str());
  EXPECT_EQ(only().text, "(PID) <" + std::string(room - 4, 'y') + "...");
}

TEST_F(LogTest, TruncatesAPlainLineAt128Kibibytes) {
  logPlain(LOG_DEBUG, "<%s", std::string(131071, 'y').c_str());
  EXPECT_EQ(only().text, "<" + std::string(131071, 'y'));
  log_.clear();
  logPlain(LOG_DEBUG, "<%s", std::string(131072, 'y').c_str());
  EXPECT_EQ(only().text, "<" + std::string(131068, 'y') + "...");
}

TEST_F(LogTest, TruncatesALineOfAMegabyteToTheSameLength) {
  logPlain(LOG_DEBUG, "%s", std::string(1 << 20, 'y').c_str());
  EXPECT_EQ(only().text, std::string(131069, 'y') + "...");
}

TEST_F(LogTest, AcceptsAnEmptyLine) {
  logPlain(LOG_INFO, "%s", "");
  EXPECT_EQ(only().text, "");
}

TEST_F(LogTest, LogsPercentSignsInArgumentsUnchanged) {
  logLine(LOG_INFO, "%s", "100% %s %n");
  EXPECT_EQ(only().text, "(PID) 100% %s %n");
}

TEST_F(LogTest, EndsAtAZeroByte) {
  logLine(LOG_INFO, "'%s'", "ab\0cd");
  EXPECT_EQ(only().text, "(PID) 'ab'");
}

// The capture replaces only the number of the logging process by "(PID) ".
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
