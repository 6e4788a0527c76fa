// SPDX-License-Identifier: Apache-2.0
// The shared state of the harness and the libraries preloaded into a daemon under test: a file that
// both map. The harness writes the plan and reads the counts. harness/state.py has the same layout.
#ifndef VERIFY_PRELOAD_STATE_H_
#define VERIFY_PRELOAD_STATE_H_

#include <stddef.h>
#include <stdint.h>

enum {
  kCallNumbers = 512,  // of system calls; from kFirstLibraryCall on of library calls
  kFirstLibraryCall = 500,
  kFork = 500,
  kSpawn = 501,
  kPopen = 502,
  kSystem = 503,
  kPlans = 4,
  kTraceBytes = 16 << 20,
};

// The two libraries have common names that must stay local. Functions that replace those of libc
// must be visible.
#define VISIBLE __attribute__((visibility("default")))

// In place of an error number: makes the call for a part of the request only.
enum { kShortResult = -1 };

// Calls number `first` to `first` + `times` - 1 of one kind fail, counted from 1.
struct Plan {
  int32_t call;  // -1 for none
  uint32_t first;
  uint32_t times;
  int32_t error;
  uint32_t hits;
};

// One of the two processes of a run: the one started, or its child, the daemon.
struct Process {
  int32_t pid;
  uint32_t passes;               // of the daemon's loop: calls of select()
  uint64_t calls[kCallNumbers];  // made while counting
  uint64_t all;                  // all kinds, counting or not
  uint64_t hits;                 // failures injected
  uint64_t allocations;          // requested while counting
  uint64_t allocation_hits;
  int64_t live_blocks;
  int64_t live_bytes;
};

struct State {
  uint32_t counting;  // count and inject while this is set
  uint32_t role;      // index of the process that the plan is for
  struct Plan plans[kPlans];
  uint64_t first_allocation;  // the first one to fail, counted from 1; 0 for none
  uint64_t failing_allocations;
  int64_t clock_moved;  // nanoseconds that the monotonic clock is ahead
  // The calls that are never made.
  uint32_t reboots;
  uint32_t kills_of_all;
  uint32_t popens;
  uint32_t systems;
  uint32_t syncs;
  uint32_t restart_reboots;  // reboots with the restart command
  // Calls that change files, in order.
  uint32_t tracing;
  uint32_t pausing;  // stops before each of them
  uint32_t stopped;  // calls stopped at so far
  uint32_t resumed;  // calls resumed so far
  uint64_t trace_used;
  struct Process processes[2];
  unsigned char trace[kTraceBytes];
};

// A traced call. Its two strings (or the data of a write) follow in `first_size` and `second_size`
// bytes, padded to a multiple of 8.
struct TraceRecord {
  uint32_t call;
  uint32_t unused;
  int64_t arguments[4];
  int64_t result;
  uint64_t first_size;
  uint64_t second_size;
};

// The mapping, or null without one. Each of the two libraries calls this once, when it is loaded.
struct State* verify_map_state(void);

// The counts of this process: of the one started, or after a fork of its child.
struct Process* verify_process(void);

#endif  // VERIFY_PRELOAD_STATE_H_
