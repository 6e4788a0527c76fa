// SPDX-License-Identifier: Apache-2.0
// The devices of the registry, for attached clients.
#ifndef RUNELGW_ATTACH_FLEET_DIRECTORY_H_
#define RUNELGW_ATTACH_FLEET_DIRECTORY_H_

#include "gateway/attach/attach.h"
#include "gateway/fleet/registry.h"

namespace runelgw {

class FleetDirectory : public AttachDirectory {
 public:
  /// @p registry must outlive it.
  explicit FleetDirectory(const Registry& registry) : registry_(registry) {}

  [[nodiscard]] std::optional<Entry> find(const std::string& name) const override;
  [[nodiscard]] runel::Result<Part> list(const std::string& query, const std::string& cursor,
                                         const Permit& permit, std::size_t most) const override;

 private:
  const Registry& registry_;
};

}  // namespace runelgw

#endif  // RUNELGW_ATTACH_FLEET_DIRECTORY_H_
