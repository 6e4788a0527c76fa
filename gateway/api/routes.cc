// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/routes.h"

#include <optional>

#include "gateway/api/api.h"

namespace runelgw {
namespace {

constexpr bool kReads = false;
constexpr bool kChanges = true;
constexpr BodyKind kNone = BodyKind::none;
constexpr BodyKind kJson = BodyKind::json;
constexpr BodyKind kTask = BodyKind::task;
constexpr Need kViewer = Need::viewer;
constexpr Need kOperator = Need::deviceOperator;
constexpr Need kAdmin = Need::admin;
constexpr Need kOwner = Need::owner;

constexpr const char* kPage = "limit cursor";

constexpr const char* kDevice = "/v1/devices/{name}";
constexpr const char* kPin = "/v1/devices/{name}/pin";
constexpr const char* kTag = "/v1/devices/{name}/tags/{tag}";
constexpr const char* kClauses = "/v1/devices/{name}/clauses";
constexpr const char* kOperations = "/v1/operations";
constexpr const char* kGroup = "/v1/groups/{group}";
constexpr const char* kRule = "/v1/tag-rules/{rule}";
constexpr const char* kAccess = "/v1/access";
constexpr const char* kTokens = "/v1/tokens";
constexpr const char* kToken = "/v1/tokens/{token}";
constexpr const char* kSession = "/v1/session";

// clang-format off
constexpr Route kRoutes[] = {
    {"GET", "/healthz", Need::open, "getHealth", "", kReads, kNone, getHealth},
    {"GET", "/readyz", Need::open, "getReadiness", "", kReads, kNone, getReadiness},
    {"GET", "/metrics", kViewer, "getMetrics", "", kReads, kNone, getMetrics},
    {"GET", "/v1/openapi.json", Need::open, "getOpenApi", "", kReads, kNone, getOpenApi},
    {"GET", "/v1/info", kViewer, "getInfo", "", kReads, kNone, getInfo},
    {"POST", kSession, Need::open, "logIn", "", kChanges, kJson, logIn},
    {"GET", kSession, kViewer, "whoAmI", "", kReads, kNone, whoAmI},
    {"DELETE", kSession, kViewer, "logOut", "", kChanges, kNone, logOut},
    {"GET", "/v1/devices", kViewer, "listDevices", "query fields limit cursor", kReads, kNone, listDevices},
    {"GET", kDevice, kViewer, "getDevice", "fields", kReads, kNone, getDevice},
    {"DELETE", kDevice, kAdmin, "deleteDevice", "", kChanges, kNone, deleteDevice},
    {"POST", "/v1/devices/{name}/approve", kAdmin, "approveDevice", "", kChanges, kNone, approveDevice},
    {"POST", "/v1/devices/{name}/deny", kAdmin, "denyDevice", "", kChanges, kNone, denyDevice},
    {"PUT", kPin, kAdmin, "setPin", "", kChanges, kJson, setPin},
    {"DELETE", kPin, kAdmin, "removePin", "", kChanges, kNone, removePin},
    {"PUT", kTag, kOperator, "setTag", "", kChanges, kJson, setTag},
    {"DELETE", kTag, kOperator, "removeTag", "", kChanges, kNone, removeTag},
    {"GET", "/v1/devices/{name}/history", kViewer, "listHistory", "event since until limit cursor", kReads, kNone,
     listHistory},
    {"GET", kClauses, kOperator, "listClauses", "since until limit cursor", kReads, kNone, listClauses},
    {"POST", kClauses, kOperator, "sendClause", "", kChanges, kJson, sendClause},
    {"POST", "/v1/devices/{name}/tasks", kViewer, "runTask", "", kChanges, kTask, runTask},
    {"GET", kOperations, kViewer, "listOperations", "state limit cursor", kReads, kNone, listOperations},
    {"POST", kOperations, kViewer, "startOperation", "", kChanges, kTask, startOperation},
    {"GET", "/v1/operations/{operation}", kViewer, "getOperation", "", kReads, kNone, getOperation},
    {"GET", "/v1/operations/{operation}/results", kViewer, "listResults", "outcome limit cursor", kReads, kNone,
     listResults},
    {"POST", "/v1/operations/{operation}/cancel", kViewer, "cancelOperation", "", kChanges, kNone, cancelOperation},
    {"GET", "/v1/groups", kViewer, "listGroups", kPage, kReads, kNone, listGroups},
    {"GET", kGroup, kViewer, "getGroup", "", kReads, kNone, getGroup},
    {"PUT", kGroup, kOwner, "setGroup", "", kChanges, kJson, setGroup},
    {"DELETE", kGroup, kOwner, "removeGroup", "", kChanges, kNone, removeGroup},
    {"GET", "/v1/tag-rules", kViewer, "listTagRules", kPage, kReads, kNone, listTagRules},
    {"GET", kRule, kViewer, "getTagRule", "", kReads, kNone, getTagRule},
    {"PUT", kRule, kOwner, "setTagRule", "", kChanges, kJson, setTagRule},
    {"DELETE", kRule, kOwner, "removeTagRule", "", kChanges, kNone, removeTagRule},
    {"GET", kAccess, kOwner, "listAccess", kPage, kReads, kNone, listAccess},
    {"POST", kAccess, kOwner, "setAccess", "", kChanges, kJson, setAccess},
    {"DELETE", "/v1/access/{entry}", kOwner, "removeAccess", "", kChanges, kNone, removeAccess},
    {"GET", kTokens, kOwner, "listTokens", kPage, kReads, kNone, listTokens},
    {"POST", kTokens, kOwner, "createToken", "", kChanges, kJson, createToken},
    {"GET", kToken, kOwner, "getToken", "", kReads, kNone, getToken},
    {"DELETE", kToken, kOwner, "revokeToken", "", kChanges, kNone, revokeToken},
    {"GET", "/v1/audit", kOwner, "listAudit", "who what outcome since until limit cursor", kReads, kNone, listAudit},
    {"GET", "/v1/events", kViewer, "streamEvents", "query after", kReads, kNone, streamEvents},
    {"GET", "/v1/attach", kViewer, "attach", "", kReads, kNone, attach},
};
// clang-format on

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (true) {
    const std::size_t end = text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) {
      return parts;
    }
    text.remove_prefix(end + 1);
  }
}

// The values of the places of @p pattern in @p path, if it fits.
std::optional<std::vector<std::string>> match(std::string_view pattern,
                                              const std::vector<std::string_view>& path) {
  const std::vector<std::string_view> expected = split(pattern, '/');
  if (expected.size() != path.size()) {
    return std::nullopt;
  }
  std::vector<std::string> values;
  for (std::size_t part = 0; part < path.size(); ++part) {
    if (!expected[part].empty() && expected[part][0] == '{') {
      if (path[part].empty()) {
        return std::nullopt;
      }
      values.emplace_back(path[part]);
    } else if (expected[part] != path[part]) {
      return std::nullopt;
    }
  }
  return values;
}

}  // namespace

RouteMatch findRoute(std::string_view method, const std::string& path) {
  const std::vector<std::string_view> parts = split(path, '/');
  const std::string_view wanted = method == "HEAD" ? "GET" : method;
  RouteMatch result;
  for (const Route& route : kRoutes) {
    std::optional<std::vector<std::string>> values = match(route.path, parts);
    if (!values) {
      continue;
    }
    if (wanted == route.method) {
      result.route = &route;
      result.values = std::move(*values);
    }
    result.allowed += (result.allowed.empty() ? "" : ", ") + std::string(route.method);
    if (route.method == std::string_view("GET")) {
      result.allowed += ", HEAD";
    }
  }
  return result;
}

bool hasParameter(const Route& route, std::string_view name) {
  for (const std::string_view known : split(route.parameters, ' ')) {
    if (known == name && !name.empty()) {
      return true;
    }
  }
  return false;
}

const char* nameOf(Need need) {
  switch (need) {
    case Need::open:
      return "none";
    case Need::viewer:
      return "viewer";
    case Need::deviceOperator:
      return "operator";
    case Need::admin:
      return "admin";
    case Need::owner:
      return "unlimited admin";
  }
  return "";
}

std::vector<RouteInfo> apiRoutes() {
  std::vector<RouteInfo> routes;
  for (const Route& route : kRoutes) {
    RouteInfo info;
    info.method = route.method;
    info.path = route.path;
    info.operationId = route.operationId;
    info.role = nameOf(route.need);
    for (const std::string_view parameter : split(route.parameters, ' ')) {
      if (!parameter.empty()) {
        info.parameters.emplace_back(parameter);
      }
    }
    info.changes = route.changes;
    info.takesBody = route.body != BodyKind::none;
    routes.push_back(std::move(info));
  }
  return routes;
}

}  // namespace runelgw
