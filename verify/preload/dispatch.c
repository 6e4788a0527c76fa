// SPDX-License-Identifier: Apache-2.0
// Preloaded into a daemon under test. Every system call of the process, including those inside
// libc, raises a SIGSYS that calls `on_call`, which counts the call and then fails it according to
// the plan, or makes it. The kernel does that for all code except the few instructions below (Linux
// 5.11 and later, x86-64). It does not apply to the child processes of the daemon.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include "gate.h"
#include "state.h"
#include "trace.h"

#ifndef PR_SET_SYSCALL_USER_DISPATCH
#define PR_SET_SYSCALL_USER_DISPATCH 59
#endif

enum { kOn = 1, kPass = 0, kBlock = 1 };
enum { kHurry = 10, kLongWaitMs = 20, kLoopWaitMs = 10 };

// The log line of a failure comes later than its count. The delay shows a harness that does not
// wait for the line.
enum { kFailureDelayNs = 1000000 };

static struct State* state;
static volatile char selector = kPass;

// The instructions that may make system calls directly. verify_raw is a plain call. A process sent
// to verify_return returns from the signal handler whose frame is on its stack.
__asm__(
    ".pushsection .text\n"
    ".globl verify_gate_begin, verify_gate_end, verify_raw, verify_return\n"
    ".hidden verify_gate_begin, verify_gate_end, verify_raw, verify_return\n"
    "verify_gate_begin:\n"
    "verify_raw:\n"
    "  mov %rdi, %rax\n"
    "  mov %rsi, %rdi\n"
    "  mov %rdx, %rsi\n"
    "  mov %rcx, %rdx\n"
    "  mov %r8, %r10\n"
    "  mov %r9, %r8\n"
    "  mov 8(%rsp), %r9\n"
    "  syscall\n"
    "  ret\n"
    "verify_return:\n"
    "  mov $15, %eax\n"
    "  syscall\n"
    "  ud2\n"
    "verify_gate_end:\n"
    ".popsection\n");

extern char verify_gate_begin[], verify_gate_end[];
void verify_return(void);

static void switch_on(void) {
  prctl(PR_SET_SYSCALL_USER_DISPATCH, kOn, verify_gate_begin,
        (unsigned long)(verify_gate_end - verify_gate_begin), &selector);
  selector = kBlock;
}

void verify_pass_all(void) {
  selector = kPass;
}

void verify_block_all(void) {
  if (state != NULL) {
    selector = kBlock;
  }
}

struct State* verify_state(void) {
  return state;
}

// The planned error of this call; 0 to make it.
int verify_planned(int call) {
  struct Process* process = verify_process();
  ++process->all;
  process->passes += call == SYS_pselect6;
  if (!state->counting) {
    return 0;
  }
  const uint64_t number = ++process->calls[call];
  if (process != &state->processes[state->role]) {
    return 0;
  }
  for (int i = 0; i < kPlans; ++i) {
    struct Plan* plan = &state->plans[i];
    if (plan->call == call && number >= plan->first && number - plan->first < plan->times) {
      ++plan->hits;
      ++process->hits;
      return plan->error;
    }
  }
  return 0;
}

static void move_clock(long milliseconds) {
  state->clock_moved += (int64_t)milliseconds * 1000000;
}

static void pause_for(long nanoseconds) {
  struct timespec time = {0, nanoseconds};
  verify_raw(SYS_nanosleep, (long)&time, 0, 0, 0, 0, 0);
}

// A sleep lasts a thousandth of a second at most, and the clock then advances by the whole time.
static long shorten_sleep(const struct timespec* wanted) {
  const long milliseconds = wanted->tv_sec * 1000 + (wanted->tv_nsec + 999999) / 1000000;
  pause_for(milliseconds < 10 ? milliseconds * 100000 : 1000000);
  move_clock(milliseconds);
  return 0;
}

// A long wait for events lasts a tenth of its time.
static long shorten_poll(const long* a) {
  const int wanted = (int)a[2];
  if (wanted <= kLongWaitMs) {
    return verify_raw(SYS_poll, a[0], a[1], a[2], 0, 0, 0);
  }
  const int real = kLongWaitMs + (wanted - kLongWaitMs) / kHurry;
  const long result = verify_raw(SYS_poll, a[0], a[1], real, 0, 0, 0);
  if (result == 0) {
    move_clock(wanted - real);
  }
  return result;
}

static long shorten_select(const long* a) {
  struct timespec* wanted = (struct timespec*)a[4];
  if (wanted == NULL || (wanted->tv_sec == 0 && wanted->tv_nsec <= kLoopWaitMs * 1000000)) {
    return verify_raw(SYS_pselect6, a[0], a[1], a[2], a[3], a[4], a[5]);
  }
  const long left = wanted->tv_sec * 1000 + wanted->tv_nsec / 1000000 - kLoopWaitMs;
  struct timespec real = {0, kLoopWaitMs * 1000000};
  const long result = verify_raw(SYS_pselect6, a[0], a[1], a[2], a[3], (long)&real, a[5]);
  if (result == 0) {
    move_clock(left);
  }
  return result;
}

static long refuse_reboot(const long* a) {
  ++state->reboots;
  state->restart_reboots += (int)a[2] == RB_AUTOBOOT;
  return 0;
}

// Changes the mask in the signal frame, which is restored when this handler returns. SIGSYS is
// never in it.
static long change_mask(const long* a, ucontext_t* context) {
  const long result = verify_raw(SYS_rt_sigprocmask, a[0], a[1], a[2], a[3], 0, 0);
  uint64_t mask = 0;
  verify_raw(SYS_rt_sigprocmask, SIG_BLOCK, 0, (long)&mask, sizeof mask, 0, 0);
  mask &= ~((uint64_t)1 << (SIGSYS - 1));
  memcpy(&context->uc_sigmask, &mask, sizeof mask);
  return result;
}

static long make_call(long call, const long* a, ucontext_t* context) {
  switch (call) {
    case SYS_nanosleep:
      return shorten_sleep((const struct timespec*)a[0]);
    case SYS_clock_nanosleep:
      return shorten_sleep((const struct timespec*)a[2]);
    case SYS_poll:
      return shorten_poll(a);
    case SYS_pselect6:
      return shorten_select(a);
    case SYS_rt_sigprocmask:
      return change_mask(a, context);
    case SYS_reboot:
      return refuse_reboot(a);
    case SYS_sync:
      ++state->syncs;
      return 0;
    case SYS_kill:
      if ((pid_t)a[0] == -1) {
        ++state->kills_of_all;
        return 0;
      }
      break;
    default:
      break;
  }
  return verify_raw(call, a[0], a[1], a[2], a[3], a[4], a[5]);
}

// Makes a partial call: one byte of a read or write of more than one byte.
static long make_partial(long call, const long* a, ucontext_t* context) {
  if (call == SYS_sendmsg) {
    struct msghdr message = *(const struct msghdr*)a[1];
    struct iovec part = message.msg_iov[0];
    part.iov_len = part.iov_len > 1 ? 1 : part.iov_len;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return verify_raw(SYS_sendmsg, a[0], (long)&message, a[2], 0, 0, 0);
  }
  long less[6];
  memcpy(less, a, sizeof less);
  less[2] = a[2] > 1 ? 1 : a[2];
  return make_call(call, less, context);
}

// The effect that a call has even when it fails: close frees the descriptor, and waitpid removes a
// child.
static void apply_effect(long call, const long* a, int error) {
  if (call == SYS_close) {
    verify_raw(call, a[0], 0, 0, 0, 0, 0);
  } else if (call == SYS_wait4 && error != EINTR) {
    verify_raw(call, a[0], a[1], a[2] & ~WNOHANG, a[3], 0, 0);
  }
}

// The kernel has no reason to refuse the change or the removal of a watched descriptor.
static int can_fail(long call, const long* a) {
  return call != SYS_epoll_ctl || a[1] == EPOLL_CTL_ADD;
}

static long handle(long call, const long* a, ucontext_t* context) {
  const int planned = can_fail(call, a) ? verify_planned((int)call) : 0;
  if (planned == kShortResult) {
    return make_partial(call, a, context);
  }
  if (planned != 0) {
    pause_for(kFailureDelayNs);
    apply_effect(call, a, planned);
    // brk has no error number: it returns the current end of the memory.
    return call == SYS_brk ? verify_raw(SYS_brk, 0, 0, 0, 0, 0, 0) : -planned;
  }
  return make_call(call, a, context);
}

static void on_call(int number, siginfo_t* info, void* memory) {
  (void)number;
  (void)info;
  selector = kPass;
  ucontext_t* context = memory;
  greg_t* registers = context->uc_mcontext.gregs;
  const long call = registers[REG_RAX];
  if (call == SYS_rt_sigreturn) {
    registers[REG_RIP] = (greg_t)verify_return;
  } else {
    const long a[] = {registers[REG_RDI], registers[REG_RSI], registers[REG_RDX],
                      registers[REG_R10], registers[REG_R8],  registers[REG_R9]};
    const int traced = state->tracing && verify_is_traced(call) &&
                       verify_process() == &state->processes[state->role];
    if (traced) {
      verify_before_traced(state);
    }
    const long result = handle(call, a, context);
    if (traced) {
      verify_trace(state, call, a, result);
    }
    registers[REG_RAX] = result;
  }
  selector = kBlock;
}

// The kernel's form of the action, so that the return from the handler is in the gate too.
struct KernelAction {
  void (*handler)(int, siginfo_t*, void*);
  unsigned long flags;
  void (*restorer)(void);
  uint64_t mask;
};

static void catch_calls(void) {
  struct KernelAction action = {on_call, SA_SIGINFO | SA_NODEFER | 0x04000000, verify_return, 0};
  if (verify_raw(SYS_rt_sigaction, SIGSYS, (long)&action, 0, sizeof action.mask, 0, 0) != 0) {
    abort();
  }
}

static void catch_calls_of_child(void) {
  if (state != NULL) {
    switch_on();
  }
}

__attribute__((constructor)) static void load(void) {
  struct State* mapped = verify_map_state();
  // Programs that the daemon starts are not under test.
  unsetenv("LD_PRELOAD");
  unsetenv("VERIFY_STATE");
  if (mapped == NULL || pthread_atfork(NULL, NULL, catch_calls_of_child) != 0) {
    return;
  }
  state = mapped;
  catch_calls();
  switch_on();
}
