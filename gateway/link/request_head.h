// SPDX-License-Identifier: Apache-2.0
// What the gateway must know of a request that it passes on.
#ifndef RUNELGW_LINK_REQUEST_HEAD_H_
#define RUNELGW_LINK_REQUEST_HEAD_H_

#include <optional>
#include <string>

#include <runel/request.h>

#include "gateway/core/payload.h"

namespace runelgw {

/// The beginning of a request, and how long it may take.
struct RequestHead {
  bool isRecord = false;  ///< begins like a record; the device answers nothing to other payloads
  std::string task;       ///< as it is sent, at most 64 bytes; empty if it is malformed
  bool known = false;     ///< the task is in the task table
  bool repeatable = false;
  bool answered = true;  ///< false for "restart"
  /// What it adds to the I/O timeout; without a value it may take any time.
  std::optional<runel::Milliseconds> extraTime = runel::Milliseconds(0);

  /// May take long although the device works: an "exec" or a "wait".
  [[nodiscard]] bool isSlow() const { return !extraTime || *extraTime > runel::Milliseconds(0); }
};

/// Reads the beginning of @p request, and all of an "exec" up to 4 MiB: a longer one fails on every
/// device.
[[nodiscard]] RequestHead headOf(const Payload& request);

}  // namespace runelgw

#endif  // RUNELGW_LINK_REQUEST_HEAD_H_
