// SPDX-License-Identifier: Apache-2.0
// Preloaded into a daemon under test: each look at the clock of the day gives another day, forward
// and back by turns, the first ones by as much as 32 bits of seconds hold. The monotonic clock,
// which nobody can set, goes on as it is.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <sys/time.h>
#include <time.h>

static time_t leap(void) {
  static unsigned looks;
  static const time_t leaps[] = {2147483647, -2147483647, 86400, -86400};
  return leaps[looks++ % (sizeof leaps / sizeof *leaps)];
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  static int (*real)(clockid_t, struct timespec*);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "clock_gettime");
  }
  int result = real(clock, now);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    now->tv_sec += leap();
  }
  return result;
}

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
  (void)zone;
  struct timespec fine;
  int result = clock_gettime(CLOCK_REALTIME, &fine);
  now->tv_sec = fine.tv_sec;
  now->tv_usec = fine.tv_nsec / 1000;
  return result;
}

time_t time(time_t* seconds) {
  struct timespec now = {0, 0};
  (void)clock_gettime(CLOCK_REALTIME, &now);
  if (seconds != 0) {
    *seconds = now.tv_sec;
  }
  return now.tv_sec;
}
