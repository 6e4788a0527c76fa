// SPDX-License-Identifier: Apache-2.0
// Starting programs when the system is out of resources.
#include <cerrno>
#include <chrono>
#include <csignal>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "contract/linux/proxy_test.h"
#include "contract/linux/refused_calls.h"
#include "support/spied_calls.h"

namespace zell::test {
namespace {

using FailingStartsTest = ProxyTest;

// The calls that start a process, and the one that waits: newer architectures have fewer of them.
#ifdef SYS_vfork
constexpr int kStarts[] = {SYS_clone, SYS_clone3, SYS_fork, SYS_vfork};
#elif defined SYS_fork  // mipsel
constexpr int kStarts[] = {SYS_clone, SYS_clone3, SYS_fork};
#else
constexpr int kStarts[] = {SYS_clone, SYS_clone3};
#endif
#ifdef SYS_poll
constexpr int kPoll = SYS_poll;
#else
constexpr int kPoll = SYS_ppoll;
#endif

TEST_F(FailingStartsTest, ReportTheLimitOfProcesses) {
  EXPECT_EQ(inChild([&] {
              for (const int call : kStarts) {
                refuseCalls(call, EAGAIN);
              }
              return shell("true") + ", " + shell("true", -1);
            }),
            failureWith(EAGAIN) + ", " + failureWith(EAGAIN));
}

TEST_F(FailingStartsTest, ReportTheLimitOfDescriptors) {
  EXPECT_EQ(inChild([&] {
              const rlimit none{3, 3};
              setrlimit(RLIMIT_NOFILE, &none);
              return shell("true") + ", " + shell("true", -1);
            }),
            failureWith(EMFILE) + ", " + failureWith(EMFILE));
}

TEST_F(FailingStartsTest, NeedTwoDescriptors) {
  EXPECT_EQ(inChild([&] {
              const rlimit few{64, 64};
              setrlimit(RLIMIT_NOFILE, &few);
              int last = 0;
              for (int fd = 0; fd >= 0; fd = dup(0)) {
                last = fd;
              }
              const std::string none = shell("echo x; exit 3");
              (void)close(last);
              const std::string one = shell("echo x; exit 3");
              (void)close(last - 1);
              const std::string two = shell("echo x; exit 3");
              return none + ", " + one + ", " + two + ", " + proxy_.output();
            }),
            failureWith(EMFILE) + ", " + failureWith(EMFILE) + ", 1 2 3 0 0, x\n");
}

TEST_F(FailingStartsTest, AreWaitedForWhenPollFails) {
  EXPECT_EQ(inChild([&] {
              refuseCalls(kPoll, ENOMEM);
              const auto before = processorTime();
              const std::string limited = shell("sleep 1000", 1);
              const bool asleep = processorTime() - before < std::chrono::milliseconds(200);
              (void)close(STDIN_FILENO);  // the output's pipe then gets the number 0
              const std::string unlimited = shell("head -c 300000 /dev/zero; exit 3");
              return limited + (asleep ? ", asleep, " : ", at work, ") + unlimited + ", " +
                     std::to_string(proxy_.output().size());
            }),
            stoppedWith(SIGTERM) + ", asleep, 1 2 3 0 0, 300000");
}

TEST_F(FailingStartsTest, ReportTheirEndWithoutOutputWhenItCannotBeMeasured) {
  EXPECT_EQ(inChild([&] {
              refuseCalls(SYS_ioctl, EBADF);
              return shell("echo x; exit 3");
            }),
            "1 2 3 0 0");
}

TEST_F(FailingStartsTest, ReportTheirEndWithoutOutputWhenItCannotBeRead) {
  SpiedCalls spy;
  spy.failAlways("read", EAGAIN);
  EXPECT_EQ(shell("echo x; exit 3"), "1 2 3 0 0");
  EXPECT_EQ(proxy_.output(), "");
}

TEST_F(FailingStartsTest, ReportWhenTheEndOfAStoppedProgramIsUnknown) {
  EXPECT_EQ(inChild([&] {
              const std::string started = shell("sleep 1000", -1);
              refuseCalls(SYS_wait4, ECHILD);
              (void)proxy_.kill();
              return started + ", " + fields(proxy_);
            }),
            "2 1 0 0 0, " + failureWith(ECHILD));
}

}  // namespace
}  // namespace zell::test
