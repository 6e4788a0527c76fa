// SPDX-License-Identifier: Apache-2.0
// The real system calls, as far as an isolated world permits them.
#include "base/system.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace zell::test {
namespace {

std::string lineOf(std::FILE* stream) {
  char line[256] = "";
  EXPECT_NE(std::fgets(line, sizeof line, stream), nullptr);
  return line;
}

TEST(SystemTest, ReadsTheOutputOfAProgram) {
  std::FILE* stream = sys::popen("echo from the program", "r");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(lineOf(stream), "from the program\n");
  EXPECT_EQ(sys::pclose(stream), 0);
}

TEST(SystemTest, DoesNotPassAProgramsStreamToOtherPrograms) {
  std::FILE* stream = sys::popen("true", "r");
  ASSERT_NE(stream, nullptr);
  EXPECT_NE(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(sys::pclose(stream), 0);
}

TEST(SystemTest, ReturnsTheStatusOfAProgramsStream) {
  std::FILE* stream = sys::popen("exit 3", "r");
  ASSERT_NE(stream, nullptr);
  const int status = sys::pclose(stream);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(SystemTest, RefusesToCloseANullStream) {
  EXPECT_EQ(sys::pclose(nullptr), -1);
}

TEST(SystemTest, RunsACommandLine) {
  EXPECT_EQ(sys::system("exit 0"), 0);
  EXPECT_EQ(WEXITSTATUS(sys::system("exit 7")), 7);
}

TEST(SystemTest, ForksAndSignals) {
  const pid_t child = sys::fork();
  if (child == 0) {
    pause();
    _exit(1);
  }
  ASSERT_GT(child, 0);
  EXPECT_EQ(sys::kill(child, 0), 0);
  EXPECT_EQ(sys::kill(child, SIGKILL), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  EXPECT_EQ(sys::kill(child, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(SystemTest, EndsTheProcessWithTheStatusModulo256) {
  EXPECT_EXIT(sys::exit(-3), ::testing::ExitedWithCode(253), "");
}

TEST(SystemTest, SleepsUntilASignalAndReturnsTheRest) {
  struct sigaction before {};
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, &before);
  alarm(1);
  EXPECT_GE(sys::sleep(100), 90U);
  EXPECT_EQ(sys::sleep(0), 0U);
  sigaction(SIGALRM, &before, nullptr);
}

TEST(SystemTest, LooksUpADottedAddress) {
  hostent record{};
  hostent* result = nullptr;
  char work[1024];
  int error = -1;
  ASSERT_EQ(sys::gethostbyname_r("10.1.2.3", &record, work, sizeof work, &result, &error), 0);
  ASSERT_NE(result, nullptr);
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, result->h_addr_list[0], text, sizeof text);
  EXPECT_STREQ(text, "10.1.2.3");
}

TEST(SystemTest, NeverGoesBackInTime) {
  std::chrono::nanoseconds last = sys::monotonicTime();
  for (int i = 0; i < 1000; ++i) {
    const std::chrono::nanoseconds now = sys::monotonicTime();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(SystemTest, ReturnsTheTimeOfTheMonotonicClock) {
  const auto before = std::chrono::steady_clock::now().time_since_epoch();
  const std::chrono::nanoseconds now = sys::monotonicTime();
  const auto after = std::chrono::steady_clock::now().time_since_epoch();
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

TEST(SystemTest, ReturnsAPastTickAndLaterTheNext) {
  const std::chrono::nanoseconds tick = sys::monotonicTickTime();
  EXPECT_LE(tick, sys::monotonicTime());
  const std::chrono::nanoseconds limit = sys::monotonicTime() + std::chrono::seconds(30);
  while (sys::monotonicTickTime() == tick && sys::monotonicTime() < limit) {
  }
  EXPECT_GT(sys::monotonicTickTime(), tick);
}

// A command that the kernel refuses: the error shows that the call is real.
TEST(SystemTest, ReportsARefusedReboot) {
  errno = 0;
  EXPECT_EQ(sys::reboot(0x1), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(SystemTest, SyncsAndReturns) {
  errno = 0;
  sys::sync();
  EXPECT_EQ(errno, 0);
}

}  // namespace
}  // namespace zell::test
