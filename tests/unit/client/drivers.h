// SPDX-License-Identifier: Apache-2.0
// The ways to run the library's loop: alone, within a poll() loop, within libuv.
#ifndef RUNEL_TESTS_UNIT_CLIENT_DRIVERS_H_
#define RUNEL_TESTS_UNIT_CLIENT_DRIVERS_H_

#include <functional>

#include <runel/loop.h>

namespace runel::test {

using Done = std::function<bool()>;

/// Each handles events of @p loop until @p done, at most a minute. Returns the last `done`.
bool runAlone(Loop& loop, const Done& done);
bool runInPoll(Loop& loop, const Done& done);
bool runInUv(Loop& loop, const Done& done);

/// The one that the environment's RUNEL_DRIVER names: "alone" (default), "poll" or "uv". So the
/// whole suite runs with each.
bool runUntil(Loop& loop, const Done& done);

}  // namespace runel::test

#endif  // RUNEL_TESTS_UNIT_CLIENT_DRIVERS_H_
