// SPDX-License-Identifier: Apache-2.0
// Preloaded into a daemon under test: counts its allocations, keeps the sum of the live bytes, and
// fails the allocations that the plan names. operator new calls these functions too, and throws
// when they return null.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <stddef.h>
#include <stdlib.h>

#include "state.h"

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* memory);

static struct State* state;
static int64_t live_blocks;
static int64_t live_bytes;

#ifdef VERIFY_COVERAGE
// The coverage counts are written at exit. They are not part of the daemon.
VISIBLE void exit(int status) {
  void (*next)(int) = (void (*)(int))dlsym(RTLD_NEXT, "exit");
  state = NULL;
  next(status);
  __builtin_unreachable();
}
#endif

static void publish(void) {
  if (state != NULL) {
    verify_process()->live_blocks = live_blocks;
    verify_process()->live_bytes = live_bytes;
  }
}

static void* taken(void* memory) {
  if (memory != NULL) {
    ++live_blocks;
    live_bytes += (int64_t)malloc_usable_size(memory);
    publish();
  }
  return memory;
}

static void given_back(void* memory) {
  if (memory != NULL) {
    --live_blocks;
    live_bytes -= (int64_t)malloc_usable_size(memory);
    publish();
  }
}

static int is_to_fail(void) {
  if (state == NULL || !state->counting) {
    return 0;
  }
  struct Process* process = verify_process();
  const uint64_t number = ++process->allocations;
  if (process != &state->processes[state->role] || state->first_allocation == 0 ||
      number < state->first_allocation ||
      number - state->first_allocation >= state->failing_allocations) {
    return 0;
  }
  ++process->allocation_hits;
  errno = ENOMEM;
  return 1;
}

VISIBLE void* malloc(size_t size) {
  return is_to_fail() ? NULL : taken(__libc_malloc(size));
}

VISIBLE void* calloc(size_t count, size_t size) {
  return is_to_fail() ? NULL : taken(__libc_calloc(count, size));
}

VISIBLE void* realloc(void* memory, size_t size) {
  if (is_to_fail()) {
    return NULL;
  }
  const int64_t before = memory == NULL ? 0 : (int64_t)malloc_usable_size(memory);
  void* moved = __libc_realloc(memory, size);
  if (moved != NULL || size == 0) {
    live_blocks -= memory != NULL;
    live_bytes -= before;
  }
  return taken(moved);
}

VISIBLE void* memalign(size_t alignment, size_t size) {
  return is_to_fail() ? NULL : taken(__libc_memalign(alignment, size));
}

VISIBLE void* aligned_alloc(size_t alignment, size_t size) {
  return memalign(alignment, size);
}

VISIBLE int posix_memalign(void** memory, size_t alignment, size_t size) {
  *memory = memalign(alignment, size);
  return *memory == NULL ? ENOMEM : 0;
}

VISIBLE void free(void* memory) {
  given_back(memory);
  __libc_free(memory);
}

__attribute__((constructor)) static void load(void) {
  state = verify_map_state();
}
