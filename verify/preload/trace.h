// SPDX-License-Identifier: Apache-2.0
// Records the calls that change files, and can stop the daemon before each of them.
#ifndef VERIFY_PRELOAD_TRACE_H_
#define VERIFY_PRELOAD_TRACE_H_

#include "state.h"

int verify_is_traced(long call);
void verify_before_traced(struct State* state);
void verify_trace(struct State* state, long call, const long* arguments, long result);

#endif  // VERIFY_PRELOAD_TRACE_H_
