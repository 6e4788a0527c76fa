// SPDX-License-Identifier: Apache-2.0
// Devices as JSON.
#ifndef RUNELGW_API_DEVICE_JSON_H_
#define RUNELGW_API_DEVICE_JSON_H_

#include <string>

#include "gateway/api/json_text.h"
#include "gateway/core/router.h"
#include "gateway/fleet/registry.h"

namespace runelgw {

/// What lists show of a device.
[[nodiscard]] Json jsonOf(const Device& device);
/// What it does now.
[[nodiscard]] Json jsonOf(const QueueState& queue);
/// Its living connections.
[[nodiscard]] Json jsonOf(const DeviceConnection& connection);
/// The ETag of what people may change of a device: its tags, its pin, and whether it is denied.
[[nodiscard]] std::string etagOf(const Device& device);

/// Keeps only the members of @p json that @p fields lists, separated by commas. False if one of
/// them does not exist, which is then in @p unknown.
[[nodiscard]] bool selectFields(Json& json, const std::string& fields, std::string& unknown);

}  // namespace runelgw

#endif  // RUNELGW_API_DEVICE_JSON_H_
