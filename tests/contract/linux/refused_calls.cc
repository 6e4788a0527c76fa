// SPDX-License-Identifier: Apache-2.0
#include "contract/linux/refused_calls.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef RUNELD_COVERAGE
extern "C" void __gcov_dump(void);
#endif

namespace zell::test {
namespace {

constexpr unsigned kDeadline = 60;  // seconds

std::string readAll(int fd) {
  std::string text;
  char piece[4096];
  ssize_t length = 0;
  while ((length = read(fd, piece, sizeof piece)) > 0) {
    text.append(piece, static_cast<std::size_t>(length));
  }
  return text;
}

[[noreturn]] void answer(int fd, const std::string& text) {
#ifdef RUNELD_COVERAGE
  __gcov_dump();  // _exit() does not dump
#endif
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  _exit(written ? 0 : 1);
}

}  // namespace

void refuseCalls(int number, int error) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog filter{sizeof program / sizeof *program, program};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
    std::perror("refuseCalls");
    std::abort();
  }
}

std::string inChild(const std::function<std::string()>& action) {
  int ends[2];
  if (pipe(ends) != 0) {
    return "no pipe";
  }
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    (void)close(ends[0]);
    (void)alarm(kDeadline);
    answer(ends[1], action());
  }
  (void)close(ends[1]);
  const std::string text = readAll(ends[0]);
  (void)close(ends[0]);
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) {
    return "no child";
  }
  return WIFSIGNALED(status) ? "died of signal " + std::to_string(WTERMSIG(status)) : text;
}

}  // namespace zell::test
