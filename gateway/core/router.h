// SPDX-License-Identifier: Apache-2.0
// Who holds the connection of a device and passes requests on to it.
#ifndef RUNELGW_CORE_ROUTER_H_
#define RUNELGW_CORE_ROUTER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <runel/loop.h>
#include <runel/result.h>

#include "gateway/core/outcome.h"
#include "gateway/core/payload.h"

namespace runelgw {

/// One request to one device.
struct Call {
  DeviceId device = 0;
  /// The text form of the record.
  Payload request;
  /// Not wholly sent by then: `Outcome::notRun`. Sent without an answer by then:
  /// `Outcome::unknown`. The default is no deadline.
  runel::Clock::time_point deadline = runel::Clock::time_point::max();
  /// May be sent again after a loss, if the task is safe to repeat.
  bool repeat = true;
  /// Has no deadline while the device takes bytes of it or sends bytes of the answer.
  bool deadlineWaits = false;
  /// Who asks, for others that find the device busy: "token ci".
  std::string label;
};

/// Identifies a call until it is done. 0 is no call.
using CallId = std::uint64_t;

/// What a device does now.
struct QueueState {
  std::size_t waiting = 0;            ///< requests without an answer, the current one included
  std::string busyWith;               ///< of the current one: "exec by token ci"; empty while idle
  std::int64_t since = 0;             ///< when its turn began, in milliseconds since 1970
  std::uint64_t bytes = 0;            ///< of the waiting requests
  std::uint64_t current = 0;          ///< the call of the current one; 0 while idle
  runel::Clock::time_point progress;  ///< when the device last sent or took bytes
};

/// Everything here belongs to the I/O thread.
class Router {
 public:
  using Done = std::function<void(Answer answer)>;

  Router() = default;
  virtual ~Router() = default;
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;

  /// Passes @p call on. Calls @p done exactly once, never within this call, unless it is cancelled.
  /// Calls to one device run in order.
  virtual CallId send(Call call, Done done) = 0;
  /// Drops a call whose sending has not started. The answer to any other is ignored. Ignores a call
  /// that is done.
  virtual void cancel(CallId id) = 0;
  [[nodiscard]] virtual QueueState queue(DeviceId device) const = 0;
  /// Sends one clause to the agent of @p device, which does not acknowledge it.
  [[nodiscard]] virtual runel::Result<void> sendClause(DeviceId device,
                                                       const std::string& clause) = 0;
};

}  // namespace runelgw

#endif  // RUNELGW_CORE_ROUTER_H_
