// SPDX-License-Identifier: Apache-2.0
// Declarations that the parts of the dispatching library share.
#ifndef VERIFY_PRELOAD_GATE_H_
#define VERIFY_PRELOAD_GATE_H_

#include "state.h"

// Makes a system call without dispatching it. Returns minus the error number on failure.
long verify_raw(long call, long a, long b, long c, long d, long e, long f);

// Stops dispatching calls until they are blocked again.
void verify_pass_all(void);
void verify_block_all(void);

// Null outside a run.
struct State* verify_state(void);

// Counts a call. Returns the planned error, kShortResult, or 0.
int verify_planned(int call);

#endif  // VERIFY_PRELOAD_GATE_H_
