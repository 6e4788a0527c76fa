// SPDX-License-Identifier: Apache-2.0
// The jobs of a fleet that programs give as a function or as a request.
#ifndef RUNEL_FLEET_FLEET_JOBS_H_
#define RUNEL_FLEET_FLEET_JOBS_H_

#include <runel/fleet.h>

namespace runel {
inline namespace v1 {

/// Sends @p request. A failed task makes the job fail.
[[nodiscard]] AsyncFleet::Job requestJob(const Request& request);
[[nodiscard]] AsyncFleet::MakeJob functionJob(AsyncFleet::Job job);

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_FLEET_FLEET_JOBS_H_
