// SPDX-License-Identifier: Apache-2.0
#include "trace.h"

#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>

#include "gate.h"

// Calls that create, change, order or remove files. Sends are included, because acknowledged data
// must be on disk. An open matters only if it creates or truncates a file, but its descriptor must
// be known, so all opens are included.
int verify_is_traced(long call) {
  switch (call) {
    case SYS_openat:
    case SYS_write:
    case SYS_fsync:
    case SYS_fdatasync:
    case SYS_close:
    case SYS_ftruncate:
    case SYS_fchmod:
    case SYS_fchown:
    case SYS_chmod:
    case SYS_rename:
    case SYS_renameat:
    case SYS_unlink:
    case SYS_unlinkat:
    case SYS_mkdir:
    case SYS_sendmsg:
      return 1;
    default:
      return 0;
  }
}

enum { kPauseNs = 20000, kRecordDelayNs = 2000000 };

static void sleep_for(long nanoseconds) {
  const struct timespec time = {0, nanoseconds};
  verify_raw(SYS_nanosleep, (long)&time, 0, 0, 0, 0, 0);
}

void verify_before_traced(struct State* state) {
  if (!state->pausing) {
    return;
  }
  const uint32_t here = __atomic_add_fetch(&state->stopped, 1, __ATOMIC_SEQ_CST);
  while (__atomic_load_n(&state->resumed, __ATOMIC_SEQ_CST) < here &&
         __atomic_load_n(&state->pausing, __ATOMIC_SEQ_CST)) {
    sleep_for(kPauseNs);
  }
}

struct Bytes {
  const void* start;
  size_t size;
};

static struct Bytes text(long address) {
  const char* start = (const char*)address;
  return (struct Bytes){start, strlen(start)};
}

static struct Bytes first_of(long call, const long* a, long result) {
  switch (call) {
    case SYS_openat:
    case SYS_renameat:
    case SYS_unlinkat:
      return text(a[1]);
    case SYS_chmod:
    case SYS_rename:
    case SYS_unlink:
    case SYS_mkdir:
      return text(a[0]);
    case SYS_write:
      return (struct Bytes){(const void*)a[1], result > 0 ? (size_t)result : 0};
    default:
      return (struct Bytes){"", 0};
  }
}

static struct Bytes second_of(long call, const long* a) {
  if (call == SYS_rename) {
    return text(a[1]);
  }
  return call == SYS_renameat ? text(a[3]) : (struct Bytes){"", 0};
}

// The effect of a call, such as a reply, is visible before its record. The delay makes a harness
// that does not wait for the record fail every time instead of by chance.
void verify_trace(struct State* state, long call, const long* arguments, long result) {
  sleep_for(kRecordDelayNs);
  const struct Bytes first = first_of(call, arguments, result);
  const struct Bytes second = second_of(call, arguments);
  struct TraceRecord record = {(uint32_t)call, 0, {0, 0, 0, 0}, result, first.size, second.size};
  memcpy(record.arguments, arguments, sizeof record.arguments);
  const size_t size = (sizeof record + first.size + second.size + 7) & ~(size_t)7;
  if (size > kTraceBytes - state->trace_used) {
    state->tracing = 0;  // tells the harness that the trace is full
    return;
  }
  unsigned char* place = state->trace + state->trace_used;
  memcpy(place, &record, sizeof record);
  memcpy(place + sizeof record, first.start, first.size);
  memcpy(place + sizeof record + first.size, second.start, second.size);
  state->trace_used += size;
}
