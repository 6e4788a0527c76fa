// SPDX-License-Identifier: Apache-2.0
// Routes about single devices and lists of them.
#include <algorithm>
#include <utility>

#include "gateway/api/call.h"
#include "gateway/api/device_json.h"
#include "gateway/api/scope.h"

namespace runelgw {
namespace {

bool reduce(const CallPtr& call, Json& json) {
  const std::string* const fields = call->parameter("fields");
  std::string unknown;
  if (fields == nullptr || selectFields(json, *fields, unknown)) {
    return true;
  }
  call->fail(ProblemType::malformedRequest, "a device has no field \"" + unknown + "\"");
  return false;
}

Json wholeJson(const CallPtr& call, const Device& device) {
  Json json = jsonOf(device);
  json["queue"] = jsonOf(call->state->parts.router.queue(device.id));
  json["connections"] = Json::array();
  for (const DeviceConnection& connection : call->state->parts.registry.connections(device.id)) {
    json["connections"].push_back(jsonOf(connection));
  }
  return json;
}

void answerDevice(const CallPtr& call, const Device& device, const Json& json) {
  HttpResponse response = jsonResponse(200, textOf(json));
  call->respond(std::move(response.with("ETag", etagOf(device))));
}

// Answers with the device as it is after a change, or with the error.
void answerChange(const CallPtr& call, DeviceId id, const runel::Result<void>& result) {
  if (!result) {
    call->fail(result.error());
    return;
  }
  const Device* const device = call->state->parts.registry.find(id);
  if (device == nullptr || !sees(call->state->parts.registry, call->who, *device)) {
    call->noContent();  // the change has moved it out of the groups of the client
    return;
  }
  answerDevice(call, *device, wholeJson(call, *device));
}

// Tags decide which groups a device is in, and with that who may use it.
bool mayTag(const CallPtr& call) {
  if (call->who.groups.empty()) {
    return true;
  }
  call->fail(ProblemType::forbidden,
             "a token that is limited to groups must not change tags: they decide about groups");
  return false;
}

}  // namespace

void listDevices(const CallPtr& call) {
  const Registry& registry = call->state->parts.registry;
  const std::string* const text = call->parameter("query");
  runel::Result<Query> query = querySeen(registry, call->who, text == nullptr ? "@all" : *text);
  if (!query) {
    call->fail(ProblemType::invalidQuery, query.error().text());
    return;
  }
  const std::optional<PageWish> page = call->page();
  if (!page) {
    return;
  }
  const std::vector<const Device*> devices = selectSeen(registry, call->who, *query);
  // By name, as the registry sorts them.
  auto device = std::upper_bound(
      devices.begin(), devices.end(), page->position,
      [](const std::string& name, const Device* other) { return name < other->name; });
  Json items = Json::array();
  Json next = nullptr;
  for (; device != devices.end(); ++device) {
    if (items.size() == page->limit) {
      next = call->cursorAfter((*std::prev(device))->name);
      break;
    }
    Json json = jsonOf(**device);
    if (!reduce(call, json)) {
      return;
    }
    items.push_back(std::move(json));
  }
  call->json(200, {{"items", std::move(items)}, {"next", next}, {"total", devices.size()}});
}

void getDevice(const CallPtr& call) {
  const Device* const device = call->device();
  if (device == nullptr) {
    return;
  }
  Json json = wholeJson(call, *device);
  if (reduce(call, json)) {
    answerDevice(call, *device, json);
  }
}

void deleteDevice(const CallPtr& call) {
  const Device* const device = call->device();
  if (device == nullptr) {
    return;
  }
  const runel::Result<void> result = call->state->parts.registry.forget(device->id);
  if (result) {
    call->noContent();
  } else {
    call->fail(result.error());
  }
}

void approveDevice(const CallPtr& call) {
  if (const Device* const device = call->device()) {
    const DeviceId id = device->id;
    answerChange(call, id, call->state->parts.registry.approve(id));
  }
}

void denyDevice(const CallPtr& call) {
  if (const Device* const device = call->device()) {
    const DeviceId id = device->id;
    answerChange(call, id, call->state->parts.registry.deny(id));
  }
}

void setPin(const CallPtr& call) {
  Fields fields(call->body, {"address", "certificate", "connection"});
  const std::string address = fields.text("address", 64, "");
  const std::string certificate = fields.text("certificate", 255, "");
  const bool connection = fields.flag("connection", false);
  if (connection != (address.empty() && certificate.empty())) {
    fields.fail("connection", "must be true, or there must be an address or a certificate");
  }
  const Device* const device = fields.ok() ? call->device() : nullptr;
  if (!fields.ok()) {
    call->fail(fields);
    return;
  }
  if (device == nullptr || !call->matches(etagOf(*device), false)) {
    return;
  }
  const DeviceId id = device->id;
  Registry& registry = call->state->parts.registry;
  call->detail = connection ? "to its connection" : address + " " + certificate;
  answerChange(call, id,
               connection ? registry.pinToConnection(id) : registry.pin(id, address, certificate));
}

void removePin(const CallPtr& call) {
  const Device* const device = call->device();
  if (device == nullptr || !call->matches(etagOf(*device), false)) {
    return;
  }
  const DeviceId id = device->id;
  answerChange(call, id, call->state->parts.registry.unpin(id));
}

void setTag(const CallPtr& call) {
  Fields fields(call->body, {"value"});
  const std::string tagText = fields.text("value", 256);
  if (!fields.ok()) {
    call->fail(fields);
    return;
  }
  const Device* const device = call->device();
  if (device == nullptr || !mayTag(call) || !call->matches(etagOf(*device), false)) {
    return;
  }
  const DeviceId id = device->id;
  call->detail = call->value(1) + "=" + tagText;
  answerChange(call, id, call->state->parts.registry.setTag(id, call->value(1), tagText));
}

void removeTag(const CallPtr& call) {
  const Device* const device = call->device();
  if (device == nullptr || !mayTag(call) || !call->matches(etagOf(*device), false)) {
    return;
  }
  const DeviceId id = device->id;
  call->detail = call->value(1);
  if (device->tags.count(call->value(1)) == 0) {
    call->fail(ProblemType::notFound, "the device has no such tag");
    return;
  }
  answerChange(call, id, call->state->parts.registry.removeTag(id, call->value(1)));
}

}  // namespace runelgw
