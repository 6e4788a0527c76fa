// SPDX-License-Identifier: Apache-2.0
// Refuses requests to devices that may not be worked on, with the reason.
#ifndef RUNELGW_APP_STATE_ROUTER_H_
#define RUNELGW_APP_STATE_ROUTER_H_

#include <functional>
#include <optional>
#include <set>
#include <string>

#include <runel/loop.h>

#include "gateway/core/router.h"
#include "gateway/fleet/device.h"

namespace runelgw {

/// A device that waits for its approval, is denied or quarantined has connections that the next
/// router does not know as its own: it would call the device offline. This one tells the reason,
/// and passes everything else on.
class StateRouter : public Router {
 public:
  /// The state of a device; none if it is not known.
  using StateOf = std::function<std::optional<DeviceState>(DeviceId device)>;

  /// @p loop and @p next must outlive it.
  StateRouter(runel::Loop& loop, Router& next, StateOf stateOf);

  CallId send(Call call, Done done) override;
  void cancel(CallId id) override;
  [[nodiscard]] QueueState queue(DeviceId device) const override;
  [[nodiscard]] runel::Result<void> sendClause(DeviceId device, const std::string& clause) override;

 private:
  runel::Loop& loop_;
  Router& next_;
  const StateOf stateOf_;
  CallId refused_ = 0;
  std::set<CallId> pending_;  // refused calls that were not told yet
};

}  // namespace runelgw

#endif  // RUNELGW_APP_STATE_ROUTER_H_
