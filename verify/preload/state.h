// SPDX-License-Identifier: Apache-2.0
// What the harness and the libraries preloaded into a daemon under test have in common: a file that
// both map. The harness writes the plan and reads the counts. harness/state.py has the same layout.
#ifndef VERIFY_PRELOAD_STATE_H_
#define VERIFY_PRELOAD_STATE_H_

#include <stddef.h>
#include <stdint.h>

enum {
  kCallNumbers = 512,  // of system calls, and from kFirstLibraryCall on of whole library calls
  kFirstLibraryCall = 500,
  kFork = 500,
  kSpawn = 501,
  kPopen = 502,
  kSystem = 503,
  kPlans = 4,
  kTraceBytes = 16 << 20,
};

// The two libraries have names in common that are not for each other; what replaces a function of
// libc must be seen.
#define VISIBLE __attribute__((visibility("default")))

// In place of an error number: the call is made, but for a part of what was asked for.
enum { kShortResult = -1 };

// The calls number `first` to `first` + `times` - 1 of one kind fail, counted from 1.
struct Plan {
  int32_t call;  // -1 for none
  uint32_t first;
  uint32_t times;
  int32_t error;
  uint32_t hits;
};

// One of the two processes of a run: the one started, or its child that is the daemon.
struct Process {
  int32_t pid;
  uint32_t unused;
  uint64_t calls[kCallNumbers];  // made while counting
  uint64_t all;                  // all kinds together, counting or not
  uint64_t hits;                 // failures injected
  uint64_t allocations;          // asked for while counting
  uint64_t allocation_hits;
  int64_t live_blocks;
  int64_t live_bytes;
};

struct State {
  uint32_t counting;  // counts and injects while this is set
  uint32_t role;      // index of the process that the plan is for
  struct Plan plans[kPlans];
  uint64_t first_allocation;  // that fails, counted from 1; 0 for none
  uint64_t failing_allocations;
  int64_t clock_moved;  // nanoseconds that the monotonic clock is ahead
  // What is never let through.
  uint32_t reboots;
  uint32_t kills_of_all;
  uint32_t popens;
  uint32_t systems;
  uint32_t syncs;
  uint32_t restart_reboots;  // reboots with the command that restarts the machine
  // Calls that change files, in order.
  uint32_t tracing;
  uint32_t pausing;  // stops before each of them
  uint32_t stopped;  // calls stopped at so far
  uint32_t resumed;  // calls let go on so far
  uint64_t trace_used;
  struct Process processes[2];
  unsigned char trace[kTraceBytes];
};

// A traced call; its two strings (or the data of a write) follow, `first_size` and `second_size`
// bytes, then nothing up to a multiple of 8.
struct TraceRecord {
  uint32_t call;
  uint32_t unused;
  int64_t arguments[4];
  int64_t result;
  uint64_t first_size;
  uint64_t second_size;
};

// The mapping; null when there is none. Each of the two libraries calls it for itself, once, when
// it is loaded.
struct State* verify_map_state(void);

// The counts of this process: of the one started, or after a fork of its child.
struct Process* verify_process(void);

#endif  // VERIFY_PRELOAD_STATE_H_
