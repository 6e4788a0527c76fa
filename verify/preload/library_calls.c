// SPDX-License-Identifier: Apache-2.0
// Replaces whole library calls: those that create a process (its first steps must not be
// dispatched), those that are never made, and the clock, which is not a system call.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "gate.h"
#include "state.h"

static void* real(const char* name) {
  return dlsym(RTLD_NEXT, name);
}

static int planned(int call) {
  return verify_state() == NULL ? 0 : verify_planned(call);
}

#ifdef VERIFY_COVERAGE
// The coverage counts are written at exit. They are not part of the daemon.
VISIBLE void exit(int status) {
  void (*next)(int) = (void (*)(int))real("exit");
  verify_pass_all();
  next(status);
  __builtin_unreachable();
}
#endif

VISIBLE pid_t fork(void) {
  const int error = planned(kFork);
  if (error != 0) {
    errno = error;
    return -1;
  }
  pid_t (*next)(void) = (pid_t(*)(void))real("fork");
  verify_pass_all();
  const pid_t pid = next();
  if (pid != 0) {
    verify_block_all();
  }
  if (pid > 0 && verify_state() != NULL) {
    verify_state()->processes[1].pid = pid;  // the child may not have stored it yet
  }
  return pid;
}

VISIBLE int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                         const posix_spawnattr_t* attributes, char* const argv[],
                         char* const envp[]) {
  const int error = planned(kSpawn);
  if (error != 0) {
    return error;
  }
  int (*next)(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
              char* const[], char* const[]) =
      (int (*)(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
               char* const[], char* const[]))real("posix_spawnp");
  verify_pass_all();
  const int result = next(pid, file, actions, attributes, argv, envp);
  verify_block_all();
  return result;
}

// A process list of one line.
VISIBLE FILE* popen(const char* command, const char* mode) {
  (void)command;
  (void)mode;
  const int error = planned(kPopen);
  if (verify_state() != NULL) {
    ++verify_state()->popens;
  }
  if (error != 0) {
    errno = error;
    return NULL;
  }
  return fopen("/proc/self/comm", "re");
}

VISIBLE int pclose(FILE* stream) {
  return fclose(stream);
}

VISIBLE int system(const char* command) {
  (void)command;
  const int error = planned(kSystem);
  if (verify_state() != NULL) {
    ++verify_state()->systems;
  }
  if (error != 0) {
    errno = error;
    return -1;
  }
  return 0;
}

VISIBLE int clock_gettime(clockid_t clock, struct timespec* now) {
  static int (*next)(clockid_t, struct timespec*);
  if (next == NULL) {
    next = (int (*)(clockid_t, struct timespec*))real("clock_gettime");
  }
  const int result = next(clock, now);
  if (result == 0 && clock == CLOCK_MONOTONIC && verify_state() != NULL) {
    const int64_t sum = (int64_t)now->tv_nsec + verify_state()->clock_moved;
    now->tv_sec += sum / 1000000000;
    now->tv_nsec = sum % 1000000000;
  }
  return result;
}
