// SPDX-License-Identifier: Apache-2.0
// The pause before a request or a job is repeated.
#ifndef RUNEL_CORE_RETRY_PAUSE_H_
#define RUNEL_CORE_RETRY_PAUSE_H_

#include <algorithm>

#include <runel/request.h>

namespace runel {

/// The pause after @p attempts failed attempts: @p first, doubled each time, at most 30 s or
/// @p first.
[[nodiscard]] inline Milliseconds retryPause(Milliseconds first, int attempts) {
  constexpr Milliseconds kLongest{30000};
  Milliseconds pause = first;
  for (int i = 1; i < attempts && pause < kLongest; ++i) {
    pause = std::min(pause * 2, kLongest);
  }
  return pause;
}

}  // namespace runel

#endif  // RUNEL_CORE_RETRY_PAUSE_H_
