// SPDX-License-Identifier: Apache-2.0
// The prompt: the effect and the output of each command line.
#include "connections/plain_slave.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <zell/led_control.h>
#include <zell/slave_proxy_local.h>

#include "fakes/system/fake_system.h"
#include "fakes/zell/fake_zell.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/write_calls.h"

namespace zell::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PlainSlaveTest : public testing::Test {
 protected:
  PlainSlaveTest() {
    FakeDevice::instance().reset();
    (void)std::signal(SIGPIPE, SIG_IGN);  // as in the daemon
  }

  // The bytes that the client receives for @p line.
  std::string answerTo(std::string line) {
    slave.handleMessage(line);
    return sockets.received();
  }

  static std::string prompt() {
    char host[1024] = {};
    EXPECT_EQ(gethostname(host, sizeof host), 0);
    return std::string(host) + "$ ";
  }

  // The calls of the proxy and the LED controller.
  static std::vector<std::string>& calls() { return FakeDevice::instance().calls; }

  // The call that runs @p line in the shell.
  static std::string shell(const std::string& line) { return "exec /bin/sh -c " + line + " | 0"; }

  // The program that the shell runs for @p line.
  static FakeProgram& program(const std::string& line) {
    return FakeDevice::instance().programs["/bin/sh -c " + line];
  }

  // The log line about sending @p text to the client.
  [[nodiscard]] LogEntry writeLine(const std::string& text) const {
    return {LOG_DEBUG,
            "(PID) write: to socket_ = " + std::to_string(sockets.near()) + ", '" + text + "'"};
  }

  SocketPair sockets = SocketPair::local();
  LogCapture log;
  PlainSlave slave{sockets.near()};
};

TEST_F(PlainSlaveTest, IsAPromptHandlerThatNeverBuffersInputOrStopsTheServer) {
  EXPECT_EQ(slave.protocol(), 1);
  EXPECT_EQ(slave.socket(), sockets.near());
  EXPECT_FALSE(slave.inputPending());
  EXPECT_FALSE(slave.stopRequested());
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(PlainSlaveTest, ABlankLineGetsOnlyAPrompt) {
  EXPECT_EQ(answerTo(""), prompt());
  EXPECT_EQ(answerTo("\r\n"), prompt());
  EXPECT_EQ(answerTo(" \t\x01\x7f \n"), prompt());
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(PlainSlaveTest, ThePromptIsTheHostNameAndTwoBytes) {
  const WriteCalls writes;
  slave.prompt();
  const std::string whole = prompt();
  EXPECT_THAT(writes.calls(),
              ElementsAre(WriteCalls::Call{sockets.near(), whole.substr(0, whole.size() - 2)},
                          WriteCalls::Call{sockets.near(), "$ "}));
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(PlainSlaveTest, VersionOneIsAccepted) {
  EXPECT_EQ(answerTo("version 1\r\n"), prompt());
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(PlainSlaveTest, AnyOtherVersionIsRefused) {
  const std::string error = "error 1 version: invalid protocol version\n";
  EXPECT_EQ(answerTo("version 2.6"), error + prompt());
  EXPECT_EQ(answerTo("version"), error + prompt());
  EXPECT_EQ(answerTo("version 1 2"), error + prompt());
}

TEST_F(PlainSlaveTest, LogsAnErrorWithItsNewlineBeforeItIsSent) {
  (void)answerTo("version 2.6");
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_ERR, "(PID) error 1 version: invalid protocol version\n"},
                          writeLine("error 1 version: invalid protocol version.")));
}

TEST_F(PlainSlaveTest, TerminateStopsTheProgramOfTheProxy) {
  EXPECT_EQ(answerTo("terminate"), prompt());
  EXPECT_THAT(calls(), ElementsAre("kill"));
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_DEBUG, "execute: terminate"}));
}

TEST_F(PlainSlaveTest, ExecStartsAProgramForThreeHundredSecondsAtMost) {
  FakeDevice::instance().programs["ls -l"].output = "a file\n";
  EXPECT_EQ(answerTo("exec ls -l\r\n"), "a file\n" + prompt());
  EXPECT_THAT(calls(), ElementsAre("exec ls -l | 300"));
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_DEBUG, "(PID) exec: 'ls -l'"}, writeLine("a file")));
}

TEST_F(PlainSlaveTest, ReportsThatAProgramCannotBeStarted) {
  FakeDevice::instance().failures["exec"] = ENOENT;
  EXPECT_EQ(answerTo("exec nothing"), "error 2 exec: start process failed\n" + prompt());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("(PID) error 2 exec: start process failed\n"));
}

TEST_F(PlainSlaveTest, ShellRunsALineWithoutLimit) {
  program("ls -l | wc").output = "3\n";
  EXPECT_EQ(answerTo("shell ls -l | wc"), "3\n" + prompt());
  EXPECT_THAT(calls(), ElementsAre(shell("ls -l | wc")));
  EXPECT_THAT(
      log.entries(),
      ElementsAre(LogEntry{LOG_DEBUG, "(PID) shell: /bin/sh -c 'ls -l | wc'"}, writeLine("3")));
}

TEST_F(PlainSlaveTest, AnUnknownWordRunsTheWholeLineInTheShell) {
  program("ls -l").output = "a\n";
  EXPECT_EQ(answerTo("  ls -l \r\n"), "a\n" + prompt());
  EXPECT_THAT(calls(), ElementsAre(shell("ls -l")));
}

TEST_F(PlainSlaveTest, CommandWordsAreExact) {
  (void)answerTo("Version 1");
  (void)answerTo("quit;");
  (void)answerTo("shellx ls");
  EXPECT_THAT(calls(), ElementsAre(shell("Version 1"), shell("quit;"), shell("shellx ls")));
}

TEST_F(PlainSlaveTest, SendsTheErrorBeforeTheOutput) {
  program("slow") = {"as far as it got\n",
                     {SlaveStatus::timeout, WatchProcessState_t::timedOut, -1, ETIMEDOUT, SIGTERM}};
  EXPECT_EQ(answerTo("slow"), "error " + std::to_string(ETIMEDOUT) +
                                  " shell: start process failed\nas far as it got\n" + prompt());
}

TEST_F(PlainSlaveTest, SyscallSetsTheLeds) {
  const SlaveProxyLocal driver;
  LedControl::instance().initialize(&driver);
  EXPECT_EQ(answerTo("syscall fast"), prompt());
  FakeSystem::instance().now += std::chrono::milliseconds(125);
  LedControl::instance().poll();
  EXPECT_THAT(calls(), ElementsAre("setLeds 1 1", "setLeds 0 0"));
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_DEBUG, "(PID) syscall: not implemented"},
                          LogEntry{LOG_DEBUG, "(PID) syscall: setting leds to 'fast'"}));
}

TEST_F(PlainSlaveTest, SyscallPassesAnUnknownStyle) {
  const SlaveProxyLocal driver;
  LedControl::instance().initialize(&driver);
  EXPECT_EQ(answerTo("syscall"), prompt());
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_EQ(driver.resultStatus().error, EINVAL);
  EXPECT_EQ(log.count("(PID) syscall: setting leds to ''"), 1);
}

TEST_F(PlainSlaveTest, QuitIsOnlyLogged) {
  EXPECT_EQ(answerTo("quit"), prompt());
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_DEBUG, "(PID) shutdown: not implemented"}));
  EXPECT_FALSE(sockets.ended());
  EXPECT_FALSE(slave.stopRequested());
}

TEST_F(PlainSlaveTest, CodesWithoutACommandWordDoNothing) {
  for (const int code : {0, 6, 8, -1}) {
    slave.execute(code, "arguments");
  }
  EXPECT_EQ(sockets.received(), "");
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(PlainSlaveTest, EveryWordHasItsCode) {
  EXPECT_EQ(slave.commandCode("version"), 1);
  EXPECT_EQ(slave.commandCode("terminate"), 2);
  EXPECT_EQ(slave.commandCode("exec"), 3);
  EXPECT_EQ(slave.commandCode("shell"), 4);
  EXPECT_EQ(slave.commandCode("syscall"), 5);
  EXPECT_EQ(slave.commandCode("quit"), 7);
  EXPECT_EQ(slave.commandCode("exe"), 0);
  EXPECT_EQ(slave.commandCode(""), 0);
}

TEST_F(PlainSlaveTest, ParsingReturnsTheArguments) {
  int code = -1;
  std::string line = "\t exec\x02  /bin/ls  -l \r\n";
  EXPECT_TRUE(slave.parseCommand(code, line));
  EXPECT_EQ(code, 3);
  EXPECT_EQ(line, "/bin/ls  -l");
}

TEST_F(PlainSlaveTest, ParsingReturnsALineForTheShellUnchanged) {
  int code = -1;
  std::string line = " ls -l \n";
  EXPECT_TRUE(slave.parseCommand(code, line));
  EXPECT_EQ(code, 4);
  EXPECT_EQ(line, "ls -l");
}

TEST_F(PlainSlaveTest, ParsingFindsNothingInABlankLine) {
  int code = -1;
  std::string line = " \r\n";
  EXPECT_FALSE(slave.parseCommand(code, line));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(line, "");
}

TEST_F(PlainSlaveTest, CleansAndTruncatesThePacketInPlace) {
  std::string packet = "exec /bin/ls\r\n";
  slave.handleMessage(packet);
  EXPECT_EQ(packet, "/bin/ls");
}

TEST_F(PlainSlaveTest, ALineInTwoPacketsIsTwoLines) {
  (void)answerTo("she");
  (void)answerTo("ll ls\n");
  EXPECT_THAT(calls(), ElementsAre(shell("she"), shell("ll ls")));
}

TEST_F(PlainSlaveTest, SendsOutputLineByLine) {
  program("two").output = "a\nb";
  const WriteCalls writes;
  EXPECT_EQ(answerTo("two"), "a\nb\n" + prompt());
  ASSERT_EQ(writes.calls().size(), 6U);
  EXPECT_EQ(writes.calls()[0].bytes, "a");
  EXPECT_EQ(writes.calls()[1].bytes, "\n");
  EXPECT_EQ(writes.calls()[2].bytes, "b");
  EXPECT_EQ(writes.calls()[3].bytes, "\n");
}

TEST_F(PlainSlaveTest, EmptyLinesAreSentAndTheLastNewlineAddsNoLine) {
  program("lines").output = "\na\n\nb\n";
  EXPECT_EQ(answerTo("lines"), "\na\n\nb\n" + prompt());
  program("newline").output = "\n";
  EXPECT_EQ(answerTo("newline"), "\n" + prompt());
}

TEST_F(PlainSlaveTest, OutputIsSentAgainAfterACommandThatStartsNothing) {
  program("once").output = "text\n";
  (void)answerTo("once");
  EXPECT_EQ(answerTo("version 1"), "text\n" + prompt());
  EXPECT_EQ(answerTo("quit"), "text\n" + prompt());
}

TEST_F(PlainSlaveTest, LogsSixtyBytesOfItsOutput) {
  const std::string sixty(60, 'x');
  program("long").output = sixty + "\n" + sixty + "y\n";
  (void)answerTo("long");
  EXPECT_THAT(log.entries(),
              ElementsAre(testing::_, writeLine(sixty), writeLine(std::string(57, 'x') + "...")));
}

TEST_F(PlainSlaveTest, LogsANewlineThatCannotBeWrittenAndContinues) {
  program("two").output = "a\nb\n";
  WriteCalls writes;
  writes.answer(1);
  writes.answer(-1, EIO);
  EXPECT_EQ(answerTo("two"), "b\n" + prompt());
  EXPECT_EQ(log.count("(PID) handleMessage: write error, (5, " + std::string(strerror(EIO)) + ")"),
            1);
}

TEST_F(PlainSlaveTest, LogsEachPartOfThePromptThatCannotBeWritten) {
  WriteCalls writes;
  writes.answer(-1, EPIPE);
  writes.answer(1, EINTR);
  slave.prompt();
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_DEBUG, "(PID) prompt: write error, (32, " +
                                                  std::string(strerror(EPIPE)) + ")"},
                          LogEntry{LOG_DEBUG, "(PID) prompt: write error, (4, " +
                                                  std::string(strerror(EINTR)) + ")"}));
}

TEST_F(PlainSlaveTest, WritesATextUnchangedAndReturnsTheResult) {
  WriteCalls writes;
  writes.answer(2);
  EXPECT_EQ(slave.write("text"), 2);
  EXPECT_EQ(slave.write("text"), 4);
  EXPECT_EQ(sockets.received(), "text");
  EXPECT_EQ(writes.calls().size(), 2U);
}

TEST_F(PlainSlaveTest, RefusesToWriteToANegativeSocket) {
  PlainSlave negative(-1);
  log.clear();
  EXPECT_EQ(negative.write("text"), -1);
  EXPECT_THAT(log.entries(), ElementsAre(LogEntry{LOG_ERR, "(PID) write: socket_ is -1"}));
}

TEST_F(PlainSlaveTest, TriesAnySocketNumberThatIsNotNegative) {
  PlainSlave high(65536);
  log.clear();
  EXPECT_EQ(high.write("text"), -1);
  EXPECT_THAT(log.entries(),
              ElementsAre(LogEntry{LOG_DEBUG, "(PID) write: to socket_ = 65536, 'text'"}));
}

TEST_F(PlainSlaveTest, ContinuesWhenTheClientHasDisconnected) {
  program("two").output = "a\nb\n";
  sockets.closeFar();
  std::string line = "two";
  slave.handleMessage(line);
  const std::string error = "write error, (32, " + std::string(strerror(EPIPE)) + ")";
  EXPECT_EQ(log.count("(PID) handleMessage: " + error), 2);
  EXPECT_EQ(log.count("(PID) prompt: " + error), 2);
}

}  // namespace
}  // namespace zell::test
