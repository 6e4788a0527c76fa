// SPDX-License-Identifier: Apache-2.0
// Preloaded into a gateway under test. Both clocks run GATEWAY_FASTER times as fast, and so do the
// waits of its loops and threads. The wall clock is also set by as many seconds as the file
// GATEWAY_LEAP holds as a 64-bit number, which a test may change at any time.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

enum { kNanos = 1000000000 };

static long long faster = 1;
static const volatile int64_t* leap;

__attribute__((constructor)) static void begin(void) {
  const char* text = getenv("GATEWAY_FASTER");
  faster = text != 0 ? atoll(text) : 1;
  const char* path = getenv("GATEWAY_LEAP");
  const int file = path != 0 ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (file >= 0) {
    void* map = mmap(0, sizeof *leap, PROT_READ, MAP_SHARED, file, 0);
    leap = map == MAP_FAILED ? 0 : map;
    close(file);
  }
}

static int real_time(clockid_t clock, struct timespec* now) {
  static int (*real)(clockid_t, struct timespec*);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "clock_gettime");
  }
  return real(clock, now);
}

static long long nanos(const struct timespec* time) {
  return time->tv_sec * (long long)kNanos + time->tv_nsec;
}

static struct timespec of_nanos(long long count) {
  struct timespec time = {(time_t)(count / kNanos), count % kNanos};
  return time;
}

// How far the wall clock is ahead. It is the same for all processes of one boot.
static long long ahead(void) {
  struct timespec up;
  (void)real_time(CLOCK_MONOTONIC, &up);
  return nanos(&up) * (faster - 1) + (leap != 0 ? *leap * (long long)kNanos : 0);
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  const int result = real_time(clock, now);
  if (result == 0 && (clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE)) {
    *now = of_nanos(nanos(now) * faster);
  } else if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    *now = of_nanos(nanos(now) + ahead());
  }
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

// Rounds up, so that a wait is never shorter than the clock shows.
int epoll_wait(int loop, struct epoll_event* events, int most, int timeout) {
  static int (*real)(int, struct epoll_event*, int, int);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "epoll_wait");
  }
  return real(loop, events, most, timeout > 0 ? (int)((timeout + faster - 1) / faster) : timeout);
}

int timerfd_settime(int timer, int flags, const struct itimerspec* wanted, struct itimerspec* old) {
  static int (*real)(int, int, const struct itimerspec*, struct itimerspec*);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "timerfd_settime");
  }
  struct itimerspec sooner = *wanted;
  if ((flags & TFD_TIMER_ABSTIME) == 0) {
    sooner.it_value = of_nanos((nanos(&wanted->it_value) + faster - 1) / faster);
  }
  return real(timer, flags, &sooner, old);
}

int pthread_cond_clockwait(pthread_cond_t* restrict condition, pthread_mutex_t* restrict mutex,
                           clockid_t clock, const struct timespec* restrict until) {
  static int (*real)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*);
  if (real == 0) {
    *(void**)&real = dlsym(RTLD_NEXT, "pthread_cond_clockwait");
  }
  struct timespec real_now, shown_now;
  (void)real_time(clock, &real_now);
  (void)clock_gettime(clock, &shown_now);
  const long long wait = (nanos(until) - nanos(&shown_now)) / faster;
  const struct timespec sooner = of_nanos(nanos(&real_now) + (wait > 0 ? wait : 0));
  return real(condition, mutex, clock, &sooner);
}

int pthread_cond_timedwait(pthread_cond_t* restrict condition, pthread_mutex_t* restrict mutex,
                           const struct timespec* restrict until) {
  return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, until);
}
