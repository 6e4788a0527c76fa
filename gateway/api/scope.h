// SPDX-License-Identifier: Apache-2.0
// Which devices a client may know, and what it may do with them.
#ifndef RUNELGW_API_SCOPE_H_
#define RUNELGW_API_SCOPE_H_

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/api/audit.h"
#include "gateway/auth/auth.h"
#include "gateway/core/permit.h"
#include "gateway/fleet/registry.h"

namespace runelgw {

/// Whether @p identity may know @p device: it is in one of its groups, or the client has none.
[[nodiscard]] bool sees(const Registry& registry, const Identity& identity, const Device& device);
/// Parses @p text as `Registry::query` does. A device that @p identity may not know does not exist.
[[nodiscard]] runel::Result<Query> querySeen(const Registry& registry, const Identity& identity,
                                             const std::string& text);
/// The devices of @p query that @p identity may know, by name.
[[nodiscard]] std::vector<const Device*> selectSeen(const Registry& registry,
                                                    const Identity& identity, const Query& query);

/// The rights of a client over time.
class ClientPermit : public Permit {
 public:
  /// @p from: the address of the client. The others must outlive it.
  ClientPermit(const Registry& registry, const Auth& auth, Audit& audit, Identity identity,
               std::string from);

  [[nodiscard]] std::string label() const override { return identity_.label(); }
  [[nodiscard]] bool valid() const override { return auth_.isValid(identity_); }
  [[nodiscard]] bool maySee(DeviceId device) const override;
  [[nodiscard]] bool may(TaskKind kind, DeviceId device) const override;
  void record(std::string_view task, DeviceId device, const Answer& answer) override;

 private:
  const Registry& registry_;
  const Auth& auth_;
  Audit& audit_;
  Identity identity_;
  std::string from_;
};

/// "answered", "not run (busy)" or "unknown whether it ran (lost)".
[[nodiscard]] std::string outcomeText(const Answer& answer);

}  // namespace runelgw

#endif  // RUNELGW_API_SCOPE_H_
