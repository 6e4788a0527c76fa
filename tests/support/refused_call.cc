// SPDX-License-Identifier: Apache-2.0
#include "support/refused_call.h"

#include <cstddef>
#include <cstdint>
#include <thread>

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

namespace zell::test {
namespace {

// A filter belongs to its thread and cannot be removed.
void refuse(long number, int error) {
  constexpr std::uint32_t kNumberPlace = offsetof(seccomp_data, nr);
  sock_filter steps[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, kNumberPlace},
      {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<std::uint32_t>(number)},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
  };
  const sock_fprog program{4, steps};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0), 0);
}

}  // namespace

void runWithoutCall(long number, int error, const std::function<void()>& action) {
  std::thread thread([&] {
    refuse(number, error);
    action();
  });
  thread.join();
}

}  // namespace zell::test
