// SPDX-License-Identifier: Apache-2.0
// Foreground programs: their start environment, their output, and how their end is reported.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "contract/linux/proxy_test.h"
#include "contract/linux/refused_calls.h"
#include "support/spied_calls.h"

namespace zell::test {
namespace {

using Words = std::vector<std::string>;

constexpr std::size_t kMaxOutput = 16 * 1024 * 1024;
const char* const kCut = "(PID) exec: output cut at 16777216 bytes";
// Suspends the process that waits for the script until the script has ended, so that it first sees
// the output and the end together.
const std::string kUnseenByTheCaller =
    "await() { until grep -q \"^State:.$1\" /proc/$2/status; do :; done; };"
    "kill -STOP $PPID; await T $PPID; (await Z $$; kill -CONT $PPID) & ";

class ProgramsTest : public ProxyTest {
 protected:
  /// The output of @p script.
  std::string outputOf(const std::string& script) {
    EXPECT_EQ(shell(script), "0 2 0 0 0");
    return proxy_.output();
  }
};

TEST_F(ProgramsTest, ReportsTheExitStatus) {
  EXPECT_EQ(shell("exit 0"), "0 2 0 0 0");
  EXPECT_EQ(shell("exit 1"), "1 2 1 0 0");
  EXPECT_EQ(shell("exit 255"), "1 2 255 0 0");
}

TEST_F(ProgramsTest, ReportsTheSignalThatEndedIt) {
  EXPECT_EQ(shell("kill -9 $$"), "1 3 -1 0 9");
  EXPECT_EQ(shell("kill -SEGV $$"), "1 3 -1 0 11");
}

TEST_F(ProgramsTest, ReturnsSuccessForAnyExitStatus) {
  EXPECT_EQ(proxy_.exec(Words{"/bin/sh", "-c", "exit 3"}, 0), 0);
  EXPECT_EQ(proxy_.system("kill -9 $$", 5), 0);
}

TEST_F(ProgramsTest, ReportsWhyAProgramDidNotStart) {
  const std::string script = dir_.write("script", "echo it has no interpreter line\n");
  EXPECT_EQ(proxy_.exec(Words{script}, 0), EACCES);
  EXPECT_EQ(fields(proxy_), failureWith(EACCES));
  chmod(script.c_str(), 0755);
  EXPECT_EQ(proxy_.exec(Words{script}, 0), ENOEXEC);
  EXPECT_EQ(fields(proxy_), failureWith(ENOEXEC));
  EXPECT_EQ(proxy_.exec(Words{dir_.path()}, -1), EACCES);
  EXPECT_EQ(fields(proxy_), failureWith(EACCES));
  EXPECT_EQ(proxy_.exec(Words{"/bin/echo", std::string(200000, 'x')}, 0), E2BIG);
  EXPECT_EQ(fields(proxy_), failureWith(E2BIG));
  EXPECT_EQ(proxy_.exec(Words{"no-such-program"}, 5), ENOENT);
  EXPECT_EQ(fields(proxy_), failureWith(ENOENT));
  EXPECT_EQ(proxy_.exec(Words{""}, 0), ENOENT);
  EXPECT_EQ(fields(proxy_), failureWith(ENOENT));
}

TEST_F(ProgramsTest, RefusesAZeroByteAnywhere) {
  const std::string marker = dir_.file("marker");
  EXPECT_EQ(proxy_.exec(Words{"/bin/touch", marker, std::string("a\0b", 3)}, 0), EINVAL);
  EXPECT_EQ(proxy_.exec(Words{std::string("/bin/touch\0x", 12), marker}, 0), EINVAL);
  EXPECT_EQ(proxy_.system("touch " + marker + std::string("\0", 1), 0), EINVAL);
  EXPECT_EQ(fields(proxy_), failureWith(EINVAL));
  EXPECT_NE(::access(marker.c_str(), F_OK), 0);
}

TEST_F(ProgramsTest, PassesArgumentsUnchanged) {
  EXPECT_EQ(proxy_.exec(Words{"/bin/echo", "a  b", "", "$HOME", "*"}, 0), 0);
  EXPECT_EQ(proxy_.output(), "a  b  $HOME *\n");
}

TEST_F(ProgramsTest, SplitsALineAtBlanks) {
  EXPECT_EQ(proxy_.exec("  /bin/echo  a\tb  'c d'  ", 300), 0);
  EXPECT_EQ(proxy_.output(), "a b 'c d'\n");
  EXPECT_EQ(proxy_.exec(" \t ", 300), EINVAL);
}

TEST_F(ProgramsTest, PassesALineToTheShell) {
  EXPECT_EQ(proxy_.system("echo a | tr a b; echo $0", 0), 0);
  EXPECT_EQ(proxy_.output(), "b\n/bin/sh\n");
}

TEST_F(ProgramsTest, SearchesAProgramWithoutASlashInPath) {
  const std::string program = dir_.write("runeld-test-program", "#!/bin/sh\necho found\n");
  chmod(program.c_str(), 0755);
  const std::string path = getenv("PATH");
  setenv("PATH", (dir_.path() + ":" + path).c_str(), 1);
  EXPECT_EQ(proxy_.exec(Words{"runeld-test-program"}, 0), 0);
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(proxy_.output(), "found\n");
}

TEST_F(ProgramsTest, StartsInTheEnvironmentAndDirectoryOfTheCaller) {
  setenv("RUNELD_TEST_VARIABLE", "its value", 1);
  char here[4096];
  EXPECT_EQ(outputOf("echo $RUNELD_TEST_VARIABLE; /bin/pwd"),
            "its value\n" + std::string(getcwd(here, sizeof here)) + "\n");
  unsetenv("RUNELD_TEST_VARIABLE");
}

TEST_F(ProgramsTest, StartsWithEmptyInputInASeparateProcessGroup) {
  EXPECT_EQ(outputOf("readlink /proc/$$/fd/0; cat"), "/dev/null\n");
  EXPECT_EQ(outputOf("read -r pid comm state parent group rest < /proc/$$/stat; "
                     "[ $group = $pid ] && echo own"),
            "own\n");
}

TEST_F(ProgramsTest, StartsWithoutIgnoredAndBlockedSignals) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &before);
  const auto pipeBefore = std::signal(SIGPIPE, SIG_IGN);
  const auto alarmBefore = std::signal(SIGALRM, SIG_IGN);
  EXPECT_EQ(proxy_.exec(Words{"grep", "-E", "Sig(Blk|Ign)", "/proc/self/status"}, 0), 0);
  std::signal(SIGALRM, alarmBefore);
  std::signal(SIGPIPE, pipeBefore);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(proxy_.output(), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(ProgramsTest, StartsWithThreeDescriptors) {
  // Both would be inherited: they are not close-on-exec.
  const UniqueFd low(open("/dev/zero", O_RDONLY));
  const UniqueFd high(fcntl(low.get(), F_DUPFD, 500));
  ASSERT_GE(high.get(), 500);
  EXPECT_EQ(outputOf("ls /proc/$$/fd; :"), "0\n1\n2\n");
}

TEST_F(ProgramsTest, StartsWithThreeDescriptorsWhenTheCallerLacksAny) {
  std::string outputs;
  UniqueFd kept[3];
  for (int fd = 0; fd < 3; ++fd) {
    kept[fd].reset(fcntl(fd, F_DUPFD_CLOEXEC, 100));
  }
  for (int closed = 0; closed < 8; ++closed) {
    for (int fd = 0; fd < 3; ++fd) {
      if ((closed & 1 << fd) != 0) {
        close(fd);
      } else {
        dup2(kept[fd].get(), fd);
      }
    }
    (void)proxy_.system("readlink /proc/$$/fd/0; ls /proc/$$/fd; echo error >&2", 0);
    outputs += proxy_.output();
  }
  for (int fd = 0; fd < 3; ++fd) {
    dup2(kept[fd].get(), fd);
  }
  std::string expected;
  for (int closed = 0; closed < 8; ++closed) {
    expected += "/dev/null\n0\n1\n2\nerror\n";
  }
  EXPECT_EQ(outputs, expected);
}

TEST_F(ProgramsTest, LeavesNoDescriptorBehind) {
  const auto descriptors = [] {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) {
      count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
  };
  const int before = descriptors();
  (void)shell("echo x");
  (void)shell("sleep 1000", -1);
  (void)proxy_.kill();
  (void)proxy_.exec(Words{"/no/such/program"}, 0);
  (void)proxy_.exec(Words{"/no/such/program"}, -1);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(ProgramsTest, KeepsBothOutputsInTheOrderWritten) {
  EXPECT_EQ(outputOf("echo 1; echo 2 >&2; echo 3; echo 4 >&2"), "1\n2\n3\n4\n");
}

TEST_F(ProgramsTest, KeepsBytesOfEveryKind) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
  }
  const std::string path = dir_.write("bytes", all);
  EXPECT_EQ(outputOf("cat " + path), all);
}

TEST_F(ProgramsTest, KeepsTheContentOfThePipeAtTheEnd) {
  // The program ends before the first read: the pipe holds this much.
  EXPECT_EQ(outputOf("head -c 65536 /dev/zero").size(), 65536U);
  EXPECT_EQ(outputOf("head -c 1000000 /dev/zero"), std::string(1000000, '\0'));
}

TEST_F(ProgramsTest, KeepsOutputUpToTheLimitWithoutALogLine) {
  EXPECT_EQ(outputOf("head -c 16777216 /dev/zero").size(), kMaxOutput);
  EXPECT_EQ(log_.count(kCut), 0);
}

TEST_F(ProgramsTest, TruncatesTheOutputAtTheLimitAndLogsItOnce) {
  EXPECT_EQ(shell("echo first; head -c 1G /dev/zero; exit 9"), "1 2 9 0 0");
  EXPECT_EQ(proxy_.output().size(), kMaxOutput);
  EXPECT_EQ(proxy_.output().substr(0, 6), "first\n");
  EXPECT_EQ(log_.texts(LOG_WARNING), std::vector<std::string>{kCut});
}

TEST_F(ProgramsTest, LogsWhenTheOutputCannotBeRead) {
  SpiedCalls spy;
  spy.fail("read", EIO);
  EXPECT_EQ(shell("echo lost"), "0 2 0 0 0");
  EXPECT_EQ(proxy_.output(), "");
  EXPECT_EQ(log_.texts(LOG_ERR),
            std::vector<std::string>{"(PID) exec: cannot read output, Input/output error"});
}

// Another process holds the pipe, so that its end is not read before the program's.
TEST_F(ProgramsTest, LogsWhenTheSizeOfTheRestIsUnknown) {
  EXPECT_EQ(inChild([&] {
              refuseCalls(SYS_ioctl, EIO);
              const std::string end = shell("sleep 60 & echo perhaps lost");
              const std::vector<std::string> errors = log_.texts(LOG_ERR);
              return end + ", " + (errors.empty() ? "nothing logged" : errors.front());
            }),
            "0 2 0 0 0, (PID) exec: cannot read output, Input/output error");
}

TEST_F(ProgramsTest, LogsWhenTheRestOfTheOutputCannotBeRead) {
  for (const int error : {EIO, EAGAIN}) {
    EXPECT_EQ(inChild([&] {
                SpiedCalls spy;
                spy.fail("read", error);
                const std::string end = shell(kUnseenByTheCaller + "echo lost");
                const std::vector<std::string> errors = log_.texts(LOG_ERR);
                return end + ", '" + proxy_.output() + "', " + std::to_string(errors.size()) +
                       ": " + (errors.empty() ? "" : errors.front());
              }),
              std::string("0 2 0 0 0, '', 1: (PID) exec: cannot read output, ") + strerror(error));
  }
}

TEST_F(ProgramsTest, KeepsASingleByteAtTheEnd) {
  EXPECT_EQ(
      inChild([&] { return shell(kUnseenByTheCaller + "printf x") + ", " + proxy_.output(); }),
      "0 2 0 0 0, x");
}

TEST_F(ProgramsTest, ClearsTheOutputBeforeTheNextProgramStarts) {
  (void)shell("echo text");
  (void)proxy_.exec(Words{}, 0);
  EXPECT_EQ(proxy_.output(), "");
  (void)shell("echo text");
  (void)proxy_.exec(Words{"/no/such/program"}, 0);
  EXPECT_EQ(proxy_.output(), "");
  (void)shell("echo text");
  (void)shell("true", -1);
  EXPECT_EQ(proxy_.output(), "");
}

TEST_F(ProgramsTest, KeepsTheOutputThroughOtherOperations) {
  (void)shell("echo text");
  (void)proxy_.fileExists("/");
  (void)proxy_.kill();
  (void)proxy_.wait();
  EXPECT_EQ(proxy_.output(), "text\n");
}

TEST_F(ProgramsTest, DoesNotWaitForOtherProcessesThatHoldThePipe) {
  EXPECT_EQ(shell("sleep 1000 & echo $!"), "0 2 0 0 0");
  const int sleeper = std::stoi(proxy_.output());
  EXPECT_TRUE(lives(sleeper));  // it still runs
  ::kill(sleeper, SIGKILL);
}

TEST_F(ProgramsTest, DoesNotWaitForOtherProcessesThatKeepWriting) {
  EXPECT_EQ(shell("(exec yes) & echo $! >&2; exit 4"), "1 2 4 0 0");
  EXPECT_LE(proxy_.output().size(), kMaxOutput);
}

TEST_F(ProgramsTest, WaitsForAProgramThatClosedItsOutput) {
  EXPECT_EQ(shell("echo before; exec >&- 2>&-; sleep 0.3; exit 5"), "1 2 5 0 0");
  EXPECT_EQ(proxy_.output(), "before\n");
}

TEST_F(ProgramsTest, DoesNotWaitUntilTheLimit) {
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(shell("exit 6", 3600), "1 2 6 0 0");
  EXPECT_EQ(shell("exit 6", 2147483647), "1 2 6 0 0");
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(60));
}

TEST_F(ProgramsTest, StopsAProgramAtItsLimit) {
  EXPECT_EQ(proxy_.exec(Words{"sleep", "1000"}, 1), ETIMEDOUT);
  EXPECT_EQ(fields(proxy_), stoppedWith(SIGTERM));
}

TEST_F(ProgramsTest, StopsAProgramThatClosedItsOutputAtItsLimit) {
  EXPECT_EQ(shell("exec >&- 2>&-; exec sleep 1000", 1), stoppedWith(SIGTERM));
}

TEST_F(ProgramsTest, StopsAnEndlesslyWritingProgramAtItsLimit) {
  EXPECT_EQ(shell("exec yes", 1), stoppedWith(SIGTERM));
  EXPECT_GT(proxy_.output().size(), 0U);
}

TEST_F(ProgramsTest, KeepsWhatAProgramWroteBeforeItsLimit) {
  EXPECT_EQ(shell("trap 'echo end; exit 3' TERM; echo begin; sleep 1000 & wait", 1),
            stoppedWith(0));
  EXPECT_EQ(proxy_.output(), "begin\nend\n");
}

TEST_F(ProgramsTest, KillsAProgramThatIgnoresSigterm) {
  EXPECT_EQ(shell("trap '' TERM; while :; do sleep 0.1; done", 1), stoppedWith(SIGKILL));
}

TEST_F(ProgramsTest, KillsAProgramThatIsSuspended) {
  EXPECT_EQ(shell("kill -STOP $$", 1), stoppedWith(SIGKILL));
}

TEST_F(ProgramsTest, StopsTheWholeProcessGroupAtTheLimit) {
  EXPECT_EQ(shell("sleep 1000 & echo $!; wait", 1), stoppedWith(SIGTERM));
  const int sleeper = std::stoi(proxy_.output());
  EXPECT_TRUE(becomesTrue([&] { return stateOf(sleeper).empty(); }));
}

TEST_F(ProgramsTest, KillsTheWholeGroupOfAProgramThatIgnoresSigterm) {
  EXPECT_EQ(shell("trap '' TERM; (while :; do sleep 0.1; done) & echo $!; wait; sleep 1000", 1),
            stoppedWith(SIGKILL));
  const int child = std::stoi(proxy_.output());
  EXPECT_TRUE(becomesTrue([&] { return stateOf(child).empty(); }));
}

TEST_F(ProgramsTest, StopsAProgramThatLeftItsProcessGroup) {
  const std::string leave =
      "import os, time\nos.setpgid(0, os.getpgid(os.getppid()))\ntime.sleep(1000)";
  EXPECT_EQ(proxy_.exec(Words{"python3", "-c", leave}, 1), ETIMEDOUT);
  EXPECT_EQ(fields(proxy_), stoppedWith(SIGTERM));
}

TEST_F(ProgramsTest, DoesNotEndEarlyOnSignals) {
  struct sigaction noRestart {};
  struct sigaction before {};
  noRestart.sa_handler = [](int) {};
  sigaction(SIGALRM, &noRestart, &before);
  const itimerval often{{0, 5000}, {0, 5000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  const std::string unlimited = shell("echo a; sleep 0.3; echo b; exit 4");
  const std::string output = proxy_.output();
  const std::string limited = shell("sleep 0.3; exit 4", 60);
  const std::string closed = shell("sleep 0.1; exec >&- 2>&-; sleep 0.2; exit 4");
  const std::string stopped = shell("trap '' TERM; while :; do sleep 0.1; done", 1);
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(unlimited, "1 2 4 0 0");
  EXPECT_EQ(output, "a\nb\n");
  EXPECT_EQ(limited, "1 2 4 0 0");
  EXPECT_EQ(closed, "1 2 4 0 0");
  EXPECT_EQ(stopped, stoppedWith(SIGKILL));
}

TEST_F(ProgramsTest, DetectsTheEndWhenSigchldWasIgnored) {
  const auto before = std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(shell("exit 7"), "1 2 7 0 0");
  std::signal(SIGCHLD, before);
}

TEST_F(ProgramsTest, DetectsTheEndWithSaNocldwait) {
  struct sigaction reaped {};
  struct sigaction before {};
  reaped.sa_handler = SIG_DFL;
  reaped.sa_flags = SA_NOCLDWAIT;
  sigaction(SIGCHLD, &reaped, &before);
  EXPECT_EQ(shell("exit 7"), "1 2 7 0 0");
  sigaction(SIGCHLD, &before, nullptr);
}

TEST_F(ProgramsTest, LeavesAHandlerOfSigchldInPlace) {
  const auto handler = [](int) {};
  const auto before = std::signal(SIGCHLD, handler);
  EXPECT_EQ(shell("exit 7"), "1 2 7 0 0");
  EXPECT_EQ(std::signal(SIGCHLD, before), static_cast<void (*)(int)>(handler));
}

// Polling in a busy loop would take the processor from other processes.
TEST_F(ProgramsTest, SleepsWhileAProgramRuns) {
  const auto before = processorTime();
  EXPECT_EQ(shell("sleep 1"), "0 2 0 0 0");
  EXPECT_LT(processorTime() - before, std::chrono::milliseconds(100));
}

TEST_F(ProgramsTest, LeavesNoZombie) {
  EXPECT_EQ(shell("echo $$"), "0 2 0 0 0");
  EXPECT_EQ(stateOf(std::stoi(proxy_.output())), "");
}

}  // namespace
}  // namespace zell::test
