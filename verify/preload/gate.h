// SPDX-License-Identifier: Apache-2.0
// What the parts of the dispatching library share.
#ifndef VERIFY_PRELOAD_GATE_H_
#define VERIFY_PRELOAD_GATE_H_

#include "state.h"

// Makes a system call without anybody looking on; minus the error number when it fails.
long verify_raw(long call, long a, long b, long c, long d, long e, long f);

// From here on calls are made as they are, until they are blocked again.
void verify_pass_all(void);
void verify_block_all(void);

// Null outside of a run.
struct State* verify_state(void);

// Counts a call; the error that the plan has for it, kShortResult, or 0.
int verify_planned(int call);

#endif  // VERIFY_PRELOAD_GATE_H_
