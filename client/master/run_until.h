// SPDX-License-Identifier: Apache-2.0
// Makes an event-driven engine a blocking one.
#ifndef RUNEL_MASTER_RUN_UNTIL_H_
#define RUNEL_MASTER_RUN_UNTIL_H_

#include <functional>
#include <optional>

#include <runel/loop.h>

namespace runel {

/// Runs @p loop until @p done, at most @p limit; without a value there is no limit. At least one
/// step, so that a caller who asks often is served too. Returns the last result of @p done.
[[nodiscard]] bool runUntil(Loop& loop, const std::function<bool()>& done,
                            std::optional<Milliseconds> limit);

}  // namespace runel

#endif  // RUNEL_MASTER_RUN_UNTIL_H_
