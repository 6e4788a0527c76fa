// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/device_json.h"

#include <utility>

#include "gateway/api/call.h"

namespace runelgw {
namespace {

Json textOrNull(const std::string& text) {
  return text.empty() ? Json(nullptr) : Json(printable(text));
}

Json numberOrNull(const std::optional<std::uint64_t>& number) {
  return number ? Json(*number) : Json(nullptr);
}

const char* verdictName(Verdict verdict) {
  switch (verdict) {
    case Verdict::work:
      return "used";
    case Verdict::waiting:
      return "waiting";
    case Verdict::denied:
      return "denied";
    case Verdict::quarantined:
      return "quarantined";
  }
  return "";
}

}  // namespace

Json jsonOf(const Device& device) {
  return {{"name", device.name},
          {"hostid", bytesOf(device.hostid)},
          {"state", nameOf(device.state)},
          {"address", textOrNull(device.address)},
          {"port", device.port},
          {"certificate", textOrNull(device.certificate)},
          {"pin",
           {{"address", textOrNull(device.pinAddress)},
            {"certificate", textOrNull(device.pinCertificate)}}},
          {"first_seen", timeOf(device.firstSeen)},
          {"last_seen", timeOf(device.lastSeen)},
          {"connected_since", timeOf(device.connectedSince)},
          {"device_type", textOrNull(device.deviceType)},
          {"kernel", textOrNull(device.kernel)},
          {"free_bytes", numberOrNull(device.freeBytes)},
          {"agent", device.agent},
          {"tags", device.tags},
          {"rule_tags", device.ruleTags},
          {"connects", device.connects},
          {"losses", device.losses},
          {"last_loss", timeOf(device.lastLoss)},
          {"last_loss_reason", textOrNull(device.lastLossReason)}};
}

Json jsonOf(const QueueState& queue) {
  return {{"waiting", queue.waiting},
          {"busy_with", textOrNull(queue.busyWith)},
          {"since", timeOf(queue.since)},
          {"bytes", queue.bytes}};
}

Json jsonOf(const DeviceConnection& connection) {
  return {{"address", printable(connection.place.host)},
          {"port", connection.place.port},
          {"certificate", textOrNull(connection.place.certificate)},
          {"verdict", verdictName(connection.verdict)},
          {"since", timeOf(connection.since)}};
}

std::string etagOf(const Device& device) {
  return etagOf(Json{{"tags", device.tags},
                     {"pin", {bytesOf(device.pinAddress), bytesOf(device.pinCertificate)}},
                     {"denied", device.state == DeviceState::denied}});
}

bool selectFields(Json& json, const std::string& fields, std::string& unknown) {
  Json selected = Json::object();
  for (std::size_t begin = 0; begin <= fields.size();) {
    const std::size_t end = std::min(fields.find(',', begin), fields.size());
    const std::string name = fields.substr(begin, end - begin);
    if (!json.contains(name)) {
      unknown = name;
      return false;
    }
    selected[name] = std::move(json[name]);
    json[name] = selected[name];  // a name may occur twice
    begin = end + 1;
  }
  json = std::move(selected);
  return true;
}

}  // namespace runelgw
