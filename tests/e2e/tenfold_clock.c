// SPDX-License-Identifier: Apache-2.0
// Preloaded into a daemon under test: shortens its waits for a slow peer to a tenth, or to another
// fraction. Changes poll(2), SO_SNDTIMEO and the monotonic clock.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

#ifndef FASTER
#define FASTER 10
#endif

enum { kFaster = FASTER, kSecond = 1000000000, kMicros = 1000000 };

int clock_gettime(clockid_t clock, struct timespec* now) {
  static int (*real)(clockid_t, struct timespec*);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "clock_gettime");
  }
  int result = real(clock, now);
  if (result == 0 && clock == CLOCK_MONOTONIC) {
    const long long nanoseconds = (now->tv_sec * (long long)kSecond + now->tv_nsec) * kFaster;
    now->tv_sec = (time_t)(nanoseconds / kSecond);
    now->tv_nsec = (long)(nanoseconds % kSecond);
  }
  return result;
}

// Rounds up, so that a wait is never shorter than the clock shows.
int poll(struct pollfd* wanted, nfds_t count, int timeout) {
  static int (*real)(struct pollfd*, nfds_t, int);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "poll");
  }
  return real(wanted, count, timeout > 0 ? (timeout + kFaster - 1) / kFaster : timeout);
}

int __poll_chk(struct pollfd* wanted, nfds_t count, int timeout, size_t size);

int __poll_chk(struct pollfd* wanted, nfds_t count, int timeout, size_t size) {
  (void)size;
  return poll(wanted, count, timeout);
}

int setsockopt(int socket, int level, int option, const void* value, socklen_t length) {
  static int (*real)(int, int, int, const void*, socklen_t);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "setsockopt");
  }
  struct timeval limit;
  if (level == SOL_SOCKET && option == SO_SNDTIMEO && length == sizeof limit) {
    limit = *(const struct timeval*)value;
    const long long micros = limit.tv_sec * (long long)kMicros + limit.tv_usec;
    const long long shorter = (micros + kFaster - 1) / kFaster;  // 0, no limit, stays 0
    limit.tv_sec = (time_t)(shorter / kMicros);
    limit.tv_usec = (suseconds_t)(shorter % kMicros);
    value = &limit;
  }
  return real(socket, level, option, value, length);
}
