// SPDX-License-Identifier: Apache-2.0
// Tasks that clients of a shared device must leave to each other.
#ifndef RUNEL_CORE_EXCLUSIVE_TASK_H_
#define RUNEL_CORE_EXCLUSIVE_TASK_H_

#include <optional>
#include <string>

#include <runel/error.h>
#include <runel/request.h>

namespace runel {

/// Why @p request is not sent to a device that other clients use at the same time, if so: an "exec"
/// in the background, "kill" and "wait" share one slot of the device.
[[nodiscard]] std::optional<Error> exclusiveTask(const Request& request);
/// The same for a payload of any kind, and also for an "exec" without a limit, which keeps the
/// device from everyone.
[[nodiscard]] std::optional<Error> exclusiveTask(const std::string& payload);

/// @p request, with a limit if it is an "exec" without one.
[[nodiscard]] Request limited(const Request& request);

}  // namespace runel

#endif  // RUNEL_CORE_EXCLUSIVE_TASK_H_
