// SPDX-License-Identifier: Apache-2.0
// Preloaded into a daemon under test: sleep() returns immediately and advances the monotonic clock,
// so that long waits take no time. Nothing else changes.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <time.h>

static time_t moved;

unsigned sleep(unsigned seconds);

unsigned sleep(unsigned seconds) {
  moved += (time_t)seconds;
  return 0;
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  static int (*real)(clockid_t, struct timespec*);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "clock_gettime");
  }
  int result = real(clock, now);
  if (result == 0 && clock == CLOCK_MONOTONIC) {
    now->tv_sec += moved;
  }
  return result;
}
