// SPDX-License-Identifier: Apache-2.0
// Preloaded into a daemon under test: each reading of the real-time clock jumps, forward and back
// in turn, by up to 68 years (the range of 32 bits of seconds). The monotonic clock, which no
// process can set, does not change.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <sys/time.h>
#include <time.h>

static time_t jump(void) {
  static unsigned readings;
  static const time_t jumps[] = {2147483647, -2147483647, 86400, -86400};
  return jumps[readings++ % (sizeof jumps / sizeof *jumps)];
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  static int (*real)(clockid_t, struct timespec*);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "clock_gettime");
  }
  int result = real(clock, now);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    now->tv_sec += jump();
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
