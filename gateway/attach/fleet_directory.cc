// SPDX-License-Identifier: Apache-2.0
#include "gateway/attach/fleet_directory.h"

#include <cstdint>
#include <ctime>

#include <nlohmann/json.hpp>

namespace runelgw {
namespace {

using Json = nlohmann::ordered_json;

Reason absenceOf(DeviceState state) {
  switch (state) {
    case DeviceState::online:
      return Reason::none;
    case DeviceState::waiting:
      return Reason::waiting;
    case DeviceState::denied:
      return Reason::denied;
    case DeviceState::quarantined:
      return Reason::quarantined;
    case DeviceState::offline:
      break;
  }
  return Reason::offline;
}

std::string utcText(std::int64_t milliseconds) {
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  char text[32] = {};
  gmtime_r(&seconds, &parts);
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

// With the members of the lines that a command-line master prints.
std::string textOf(const Device& device) {
  Json json{{"v", 1},
            {"device", device.name},
            {"task", "devices"},
            {"state", nameOf(device.state)},
            {"hostid", device.hostid},
            {"devicetype", device.deviceType},
            {"address", device.address},
            {"port", device.port}};
  if (device.connectedSince != 0) {
    json["since"] = utcText(device.connectedSince);
  }
  json["first_seen"] = utcText(device.firstSeen);
  json["last_seen"] = utcText(device.lastSeen);
  json["connects"] = device.connects;
  json["losses"] = device.losses;
  json["agent"] = device.agent;
  json["tags"] = device.tags;
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::optional<AttachDirectory::Entry> FleetDirectory::find(const std::string& name) const {
  const Device* const device = registry_.find(name);
  if (device == nullptr) {
    return std::nullopt;
  }
  return Entry{device->id, device->name, device->hostid, absenceOf(device->state)};
}

// The cursor is the name of the last device, so a list survives devices that come and go.
runel::Result<AttachDirectory::Part> FleetDirectory::list(const std::string& query,
                                                          const std::string& cursor,
                                                          const Permit& permit,
                                                          std::size_t most) const {
  const auto parsed =
      registry_.query(query, [&permit](const Device& device) { return permit.maySee(device.id); });
  if (!parsed) {
    return parsed.error();
  }
  Part part;
  std::string last;
  for (const Device* device : registry_.select(*parsed)) {
    if (device->name <= cursor || !permit.maySee(device->id)) {
      continue;
    }
    if (part.devices.size() == most) {
      part.next = last;
      break;
    }
    part.devices.push_back(textOf(*device));
    last = device->name;
  }
  return part;
}

}  // namespace runelgw
