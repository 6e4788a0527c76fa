// SPDX-License-Identifier: Apache-2.0
// Background programs: how they are stopped, waited for, and forgotten.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <sys/time.h>
#include <sys/wait.h>

#include <zell/led_control.h>

#include "contract/linux/proxy_test.h"
#include "fakes/system/fake_system.h"
#include "support/spied_calls.h"

namespace zell::test {
namespace {

using std::chrono::milliseconds;
using Names = std::vector<std::string>;

const char* const kRunning = "2 1 0 0 0";

class BackgroundProgramsTest : public ProxyTest {
 protected:
  /// Starts @p script in the background of @p proxy. Waits until the script runs "ready" and
  /// returns the process id of its shell.
  int start(SlaveProxy& proxy, const std::string& script) {
    const std::string marker = dir_.file("ready" + std::to_string(++started_));
    const std::string ready = "echo $$ > " + marker + ".new; mv " + marker + ".new " + marker;
    std::string whole = script;
    whole.replace(whole.find("ready"), 5, ready);
    EXPECT_EQ(proxy.system(whole, -1), 0);
    EXPECT_EQ(fields(proxy), kRunning);
    EXPECT_TRUE(becomesTrue([&] { return proxy_.fileExists(marker); }));
    return std::stoi(contentOf(marker));
  }
  int start(const std::string& script) { return start(proxy_, script); }

  static bool endsUnreaped(int pid) {
    return becomesTrue([&] { return stateOf(pid) == "Z"; });
  }

  /// The periodic work of a loop pass @p time later.
  static void workAfter(milliseconds time) {
    FakeSystem::instance().now += time;
    LedControl::instance().poll();
  }

  /// The system calls of the periodic work @p time later.
  static Names askedAfter(milliseconds time) {
    const SpiedCalls spy;
    workAfter(time);
    return spy.calls();
  }

  static void end(int pid) {
    ::kill(pid, SIGKILL);
    EXPECT_TRUE(endsUnreaped(pid));
  }

  int started_ = 0;
};

TEST_F(BackgroundProgramsTest, AreAnsweredImmediatelyWithoutOutput) {
  EXPECT_EQ(proxy_.system("echo unseen; exec sleep 1000", -1), 0);
  EXPECT_EQ(fields(proxy_), kRunning);
  EXPECT_EQ(proxy_.output(), "");
  EXPECT_TRUE(proxy_.kill());
}

TEST_F(BackgroundProgramsTest, WriteToDevNull) {
  const int pid = start("ready; exec sleep 1000");
  for (const char* fd : {"0", "1", "2"}) {
    EXPECT_EQ(proxy_.realPath("/proc/" + std::to_string(pid) + "/fd/" + fd), "/dev/null");
  }
  EXPECT_TRUE(proxy_.kill());
}

TEST_F(BackgroundProgramsTest, AreStoppedByKill) {
  const int pid = start("ready; exec sleep 1000");
  EXPECT_TRUE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), "0 3 -1 0 15");
  EXPECT_EQ(stateOf(pid), "");
}

TEST_F(BackgroundProgramsTest, AreKilledWhenTheyIgnoreSigterm) {
  start("trap '' TERM; ready; while :; do sleep 0.1; done");
  EXPECT_TRUE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), "0 3 -1 0 9");
}

TEST_F(BackgroundProgramsTest, MayExitByThemselvesOnKill) {
  start("trap 'exit 3' TERM; ready; while :; do sleep 0.1; done");
  EXPECT_TRUE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), "0 2 3 0 0");
}

TEST_F(BackgroundProgramsTest, AreStoppedWithTheirGroup) {
  start("sleep 1000 & echo $! > " + dir_.file("child") + "; ready; wait");
  const int child = std::stoi(contentOf(dir_.file("child")));
  EXPECT_TRUE(proxy_.kill());
  EXPECT_TRUE(becomesTrue([&] { return stateOf(child).empty(); }));
}

TEST_F(BackgroundProgramsTest, CannotBeKilledTwice) {
  start("ready; exec sleep 1000");
  EXPECT_TRUE(proxy_.kill());
  EXPECT_FALSE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), failureWith(ESRCH));
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), failureWith(ECHILD));
}

TEST_F(BackgroundProgramsTest, CannotBeKilledAfterTheirEndButWaitedForOnce) {
  const int pid = start("ready; exit 7");
  EXPECT_TRUE(endsUnreaped(pid));
  EXPECT_FALSE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), failureWith(ESRCH));
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), "1 2 7 0 0");
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), failureWith(ECHILD));
  EXPECT_FALSE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), failureWith(ESRCH));
}

TEST_F(BackgroundProgramsTest, ReportTheirEndToWait) {
  start("ready; sleep 0.2; exit 0");
  EXPECT_TRUE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), "0 2 0 0 0");
  start("ready; sleep 0.2; kill -USR1 $$");
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), "1 3 -1 0 " + std::to_string(SIGUSR1));
}

TEST_F(BackgroundProgramsTest, AreWaitedForThroughSignals) {
  start("ready; sleep 0.3; exit 6");
  struct sigaction noRestart {};
  struct sigaction before {};
  noRestart.sa_handler = [](int) {};
  sigaction(SIGALRM, &noRestart, &before);
  const itimerval often{{0, 5000}, {0, 5000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  (void)proxy_.wait();
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(fields(proxy_), "1 2 6 0 0");
}

TEST_F(BackgroundProgramsTest, AreForgottenByAForegroundProgram) {
  (void)shell("exit 0");
  EXPECT_FALSE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), failureWith(ESRCH));
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), failureWith(ECHILD));
}

TEST_F(BackgroundProgramsTest, KeepRunningWhenTheNextProgramStarts) {
  const int pid = start("ready; exec sleep 1000");
  (void)shell("exit 0");
  EXPECT_FALSE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), failureWith(ESRCH));
  EXPECT_TRUE(lives(pid));
  end(pid);
}

TEST_F(BackgroundProgramsTest, KeepRunningWhenTheNextProgramFailsToStart) {
  const int pid = start("ready; exec sleep 1000");
  EXPECT_EQ(proxy_.exec("/no/such/program", -1), ENOENT);
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), failureWith(ECHILD));
  EXPECT_TRUE(lives(pid));
  end(pid);
}

TEST_F(BackgroundProgramsTest, KeepRunningWhenTheirProxyIsDestroyed) {
  auto proxy = std::make_unique<SlaveProxyLocal>();
  const int pid = start(*proxy, "ready; exec sleep 1000");
  proxy.reset();
  EXPECT_TRUE(lives(pid));
  end(pid);
}

TEST_F(BackgroundProgramsTest, AreReapedByThePeriodicWorkOnceForgotten) {
  auto proxy = std::make_unique<SlaveProxyLocal>();
  const int running = start(*proxy, "ready; exec sleep 1000");
  const int ended = start("ready; exit 0");
  proxy.reset();
  (void)shell("true");
  EXPECT_TRUE(endsUnreaped(ended));
  errno = EINTR;  // left by an earlier call
  workAfter(milliseconds(500));
  EXPECT_EQ(stateOf(ended), "");
  EXPECT_TRUE(lives(running));
  end(running);
  workAfter(milliseconds(500));
  EXPECT_EQ(stateOf(running), "");
}

TEST_F(BackgroundProgramsTest, ArePolledTwiceASecondOnceForgotten) {
  const int pid = start("ready; exec sleep 1000");
  (void)shell("true");
  workAfter(milliseconds(500));
  EXPECT_EQ(askedAfter(milliseconds(0)), Names{});
  EXPECT_EQ(askedAfter(milliseconds(499)), Names{});
  EXPECT_EQ(askedAfter(milliseconds(1)), Names{"waitid"});
  EXPECT_EQ(askedAfter(milliseconds(0)), Names{});
  end(pid);
  EXPECT_EQ(askedAfter(milliseconds(499)), Names{});
  EXPECT_EQ(askedAfter(milliseconds(1)), (Names{"waitid", "waitpid"}));
  EXPECT_EQ(askedAfter(std::chrono::hours(1)), Names{});  // all are reaped
}

TEST_F(BackgroundProgramsTest, ArePolledInOneCallWhileAllRun) {
  std::vector<int> pids;
  for (int i = 0; i < 20; ++i) {
    pids.push_back(start("ready; exec sleep 1000"));
  }
  (void)shell("true");
  workAfter(milliseconds(500));
  EXPECT_EQ(askedAfter(milliseconds(500)), Names{"waitid"});
  for (const int pid : pids) {
    end(pid);
  }
  workAfter(milliseconds(500));
  for (const int pid : pids) {
    EXPECT_EQ(stateOf(pid), "");
  }
}

// For any offset of the passes, at ten passes a second.
TEST_F(BackgroundProgramsTest, AreReapedWithinASecondOfTheirEndOnceForgotten) {
  for (int before = 0; before < 6; ++before) {
    const int pid = start("ready; exec sleep 1000");
    (void)shell("true");
    for (int pass = 0; pass <= before; ++pass) {
      workAfter(milliseconds(100));
    }
    end(pid);
    for (int pass = 0; pass < 9; ++pass) {
      workAfter(milliseconds(100));
    }
    EXPECT_EQ(stateOf(pid), "") << before;
  }
}

TEST_F(BackgroundProgramsTest, AreNotReapedByThePeriodicWorkUntilForgotten) {
  const int pid = start("ready; exit 7");
  EXPECT_TRUE(endsUnreaped(pid));
  workAfter(milliseconds(500));
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), "1 2 7 0 0");
}

TEST_F(BackgroundProgramsTest, AreNotReapedInPlaceOfAForgottenOneWithTheSamePid) {
  const int first = start("ready; exec sleep 1000");
  (void)shell("true");  // forgets the program
  end(first);
  workAfter(milliseconds(500));

  // A child of the program that has not ended yet keeps the number in use as its process group.
  ASSERT_TRUE(becomesTrue([&] { return ::kill(-first, 0) != 0; }));
  std::ofstream("/proc/sys/kernel/ns_last_pid") << first - 1 << std::flush;
  ASSERT_EQ(proxy_.system("exit 7", -1), 0);
  ASSERT_TRUE(endsUnreaped(first)) << "the number was not given out again";
  workAfter(milliseconds(500));
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), "1 2 7 0 0");
}

TEST_F(BackgroundProgramsTest, LeaveOtherChildrenUnreaped) {
  const pid_t stranger = fork();
  if (stranger == 0) {
    _exit(9);
  }
  EXPECT_TRUE(endsUnreaped(stranger));
  workAfter(milliseconds(500));
  int status = 0;
  EXPECT_EQ(waitpid(stranger, &status, 0), stranger);
  EXPECT_EQ(WEXITSTATUS(status), 9);
}

TEST_F(BackgroundProgramsTest, FailToBeWaitedForWhenAlreadyReaped) {
  const int pid = start("ready; exec sleep 1000");
  ::kill(pid, SIGKILL);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
  EXPECT_FALSE(proxy_.kill());
  EXPECT_EQ(fields(proxy_), failureWith(ESRCH));
  EXPECT_FALSE(proxy_.wait());
  EXPECT_EQ(fields(proxy_), failureWith(ECHILD));
}

}  // namespace
}  // namespace zell::test
