// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/scope.h"

#include <algorithm>
#include <utility>

namespace runelgw {

bool sees(const Registry& registry, const Identity& identity, const Device& device) {
  return identity.groups.empty() ||
         std::any_of(identity.groups.begin(), identity.groups.end(),
                     [&](const std::string& group) { return registry.inGroup(device, group); });
}

runel::Result<Query> querySeen(const Registry& registry, const Identity& identity,
                               const std::string& text) {
  return registry.query(text,
                        [&](const Device& device) { return sees(registry, identity, device); });
}

std::vector<const Device*> selectSeen(const Registry& registry, const Identity& identity,
                                      const Query& query) {
  std::vector<const Device*> devices = registry.select(query);
  devices.erase(
      std::remove_if(devices.begin(), devices.end(),
                     [&](const Device* device) { return !sees(registry, identity, *device); }),
      devices.end());
  return devices;
}

ClientPermit::ClientPermit(const Registry& registry, const Auth& auth, Audit& audit,
                           Identity identity, std::string from)
    : registry_(registry),
      auth_(auth),
      audit_(audit),
      identity_(std::move(identity)),
      from_(std::move(from)) {}

// The rights of a token do not change while it exists. Its end and the groups of a device do.
bool ClientPermit::maySee(DeviceId device) const {
  const Device* const found = registry_.find(device);
  return found != nullptr && sees(registry_, identity_, *found);
}

bool ClientPermit::may(TaskKind kind, DeviceId device) const {
  return identity_.kinds.has(kind) && auth_.isValid(identity_) && maySee(device);
}

void ClientPermit::record(std::string_view task, DeviceId device, const Answer& answer) {
  if (!changes(task)) {
    return;
  }
  const Device* const found = registry_.find(device);
  AuditRecord record;
  record.who = identity_.label();
  record.role = nameOf(identity_.role);
  record.from = from_;
  record.what = "attach: " + std::string(task.substr(0, 64));
  record.devices = found == nullptr ? "" : found->name;
  record.outcome = outcomeText(answer);
  record.detail = answer.text;
  audit_.add(std::move(record), answer.outcome != Outcome::answered);
}

std::string outcomeText(const Answer& answer) {
  std::string text = nameOf(answer.outcome);
  if (answer.outcome != Outcome::answered) {
    text += std::string(" (") + codeOf(answer.reason) + ")";
  }
  return text;
}

}  // namespace runelgw
