// SPDX-License-Identifier: Apache-2.0
// Preloaded into a daemon under test: measures each pass of its loop, from the return of one
// select() to the call of the next. Maps the file RUNELD_PASS_CLOCK for the figures, so that a test
// can read them while the daemon runs. soak/meter.py knows the layout.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

enum { BUCKETS = 40 };

struct figures {
  uint64_t passes;
  uint64_t nanoseconds;
  uint64_t worst;             // longest pass since the reader set it to 0
  uint64_t buckets[BUCKETS];  // passes of 2^(N-1) to 2^N microseconds
};

static struct figures* figures;
static uint64_t begun;

static uint64_t now(void) {
  struct timespec time;
  (void)clock_gettime(CLOCK_MONOTONIC, &time);
  return (uint64_t)time.tv_sec * 1000000000U + (uint64_t)time.tv_nsec;
}

static void open_figures(void) {
  const char* path = getenv("RUNELD_PASS_CLOCK");
  int file = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) {
    abort();  // never run without measuring
  }
  void* mapped = mmap(NULL, sizeof *figures, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (mapped == MAP_FAILED) {
    abort();
  }
  (void)close(file);
  figures = mapped;
}

static void note(uint64_t nanoseconds) {
  int bucket = 0;
  for (uint64_t rest = nanoseconds / 1000; rest > 0 && bucket < BUCKETS - 1; rest /= 2) {
    ++bucket;
  }
  ++figures->buckets[bucket];
  ++figures->passes;
  figures->nanoseconds += nanoseconds;
  if (nanoseconds > figures->worst) {
    figures->worst = nanoseconds;
  }
}

int select(int count, fd_set* read, fd_set* write, fd_set* except, struct timeval* timeout) {
  static int (*real)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
  if (real == NULL) {
    *(void**)&real = dlsym(RTLD_NEXT, "select");
    open_figures();
  }
  if (begun != 0) {
    note(now() - begun);
  }
  int result = real(count, read, write, except, timeout);
  begun = now();
  return result;
}
