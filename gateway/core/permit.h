// SPDX-License-Identifier: Apache-2.0
// What one client may do, for parts that serve a client for a long time.
#ifndef RUNELGW_CORE_PERMIT_H_
#define RUNELGW_CORE_PERMIT_H_

#include <string>
#include <string_view>

#include "gateway/core/outcome.h"
#include "gateway/core/task_rules.h"

namespace runelgw {

/// The rights of a client, as they are at each call: ask again for each request.
class Permit {
 public:
  Permit() = default;
  virtual ~Permit() = default;
  Permit(const Permit&) = delete;
  Permit& operator=(const Permit&) = delete;

  /// Who it is: "token ci". The label of calls, and the name in logs.
  [[nodiscard]] virtual std::string label() const = 0;
  /// False when the token was revoked or has expired, or the client has logged out: end its
  /// connection.
  [[nodiscard]] virtual bool valid() const = 0;
  /// Whether it may know that @p device exists. Answer as for an absent device if it may not.
  [[nodiscard]] virtual bool maySee(DeviceId device) const = 0;
  /// Whether it may run tasks of @p kind on @p device.
  [[nodiscard]] virtual bool may(TaskKind kind, DeviceId device) const = 0;
  /// Call once for each request that is over or refused: a request that changes something becomes
  /// an entry of the audit log.
  virtual void record(std::string_view task, DeviceId device, const Answer& answer) = 0;
};

}  // namespace runelgw

#endif  // RUNELGW_CORE_PERMIT_H_
