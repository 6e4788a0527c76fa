// SPDX-License-Identifier: Apache-2.0
// A router that counts the requests of another one.
#ifndef RUNELGW_METRICS_METERED_ROUTER_H_
#define RUNELGW_METRICS_METERED_ROUTER_H_

#include <functional>

#include <runel/loop.h>

#include "gateway/core/router.h"
#include "gateway/metrics/metrics.h"

namespace runelgw {

/// Passes everything on to another router, and tells the metrics how and when each call ended.
class MeteredRouter : public Router {
 public:
  /// Both must outlive it and its calls.
  MeteredRouter(
      Router& router, Metrics& metrics,
      std::function<runel::Clock::time_point()> now = [] { return runel::Clock::now(); })
      : router_(router), metrics_(metrics), now_(std::move(now)) {}

  CallId send(Call call, Done done) override;
  void cancel(CallId id) override { router_.cancel(id); }
  [[nodiscard]] QueueState queue(DeviceId device) const override { return router_.queue(device); }
  [[nodiscard]] runel::Result<void> sendClause(DeviceId device,
                                               const std::string& clause) override {
    return router_.sendClause(device, clause);
  }

 private:
  Router& router_;
  Metrics& metrics_;
  std::function<runel::Clock::time_point()> now_;
};

}  // namespace runelgw

#endif  // RUNELGW_METRICS_METERED_ROUTER_H_
