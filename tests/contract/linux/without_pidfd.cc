// SPDX-License-Identifier: Apache-2.0
// Makes the linked tests run without pidfd_open(2), which some devices' kernels lack.
#include <cerrno>

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "contract/linux/refused_calls.h"

namespace zell::test {
namespace {

const bool g_refused = [] {
  refuseCalls(SYS_pidfd_open, ENOSYS);
  return true;
}();

TEST(WithoutPidfd, PidfdOpenFails) {
  EXPECT_EQ(syscall(SYS_pidfd_open, getpid(), 0), -1);
  EXPECT_EQ(errno, ENOSYS);
}

}  // namespace
}  // namespace zell::test
