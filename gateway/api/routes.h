// SPDX-License-Identifier: Apache-2.0
// The table of routes.
#ifndef RUNELGW_API_ROUTES_H_
#define RUNELGW_API_ROUTES_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace runelgw {

class ApiCall;
using CallPtr = std::shared_ptr<ApiCall>;

/// Who may use a route.
enum class Need {
  open,            ///< everyone
  viewer,          ///< any valid token
  deviceOperator,  ///< operators and admins
  admin,           ///< admins
  owner,           ///< admins whom neither groups nor kinds of task limit
};

/// What the body of a request is.
enum class BodyKind {
  none,  ///< a body is refused
  json,  ///< a JSON object
  task,  ///< the same, with contents for devices: it may be longer
};

struct Route {
  const char* method;
  const char* path;  ///< "/v1/devices/{name}"
  Need need;
  const char* operationId;
  const char* parameters;  ///< of the query, separated by blanks; others are refused
  bool changes;            ///< it is recorded in the audit log
  BodyKind body;
  void (*handler)(const CallPtr& call);
};

/// The result of a search.
struct RouteMatch {
  const Route* route = nullptr;     ///< null: none for the method, or none at all
  std::vector<std::string> values;  ///< of the places in the path
  std::string allowed;              ///< the methods of the path, for Allow; empty: unknown path
};

/// HEAD finds the route of GET.
[[nodiscard]] RouteMatch findRoute(std::string_view method, const std::string& path);
/// Whether the route has the query parameter @p name.
[[nodiscard]] bool hasParameter(const Route& route, std::string_view name);
[[nodiscard]] const char* nameOf(Need need);

///@{
/// The handlers. All checks of the table have passed.
void listDevices(const CallPtr& call);
void getDevice(const CallPtr& call);
void deleteDevice(const CallPtr& call);
void approveDevice(const CallPtr& call);
void denyDevice(const CallPtr& call);
void setPin(const CallPtr& call);
void removePin(const CallPtr& call);
void setTag(const CallPtr& call);
void removeTag(const CallPtr& call);
void listHistory(const CallPtr& call);
void listClauses(const CallPtr& call);
void sendClause(const CallPtr& call);
void runTask(const CallPtr& call);
void startOperation(const CallPtr& call);
void listOperations(const CallPtr& call);
void getOperation(const CallPtr& call);
void listResults(const CallPtr& call);
void cancelOperation(const CallPtr& call);
void listGroups(const CallPtr& call);
void getGroup(const CallPtr& call);
void setGroup(const CallPtr& call);
void removeGroup(const CallPtr& call);
void listTagRules(const CallPtr& call);
void getTagRule(const CallPtr& call);
void setTagRule(const CallPtr& call);
void removeTagRule(const CallPtr& call);
void listAccess(const CallPtr& call);
void setAccess(const CallPtr& call);
void removeAccess(const CallPtr& call);
void listTokens(const CallPtr& call);
void createToken(const CallPtr& call);
void getToken(const CallPtr& call);
void revokeToken(const CallPtr& call);
void logIn(const CallPtr& call);
void logOut(const CallPtr& call);
void whoAmI(const CallPtr& call);
void listAudit(const CallPtr& call);
void streamEvents(const CallPtr& call);
void getInfo(const CallPtr& call);
void getOpenApi(const CallPtr& call);
void getMetrics(const CallPtr& call);
void getHealth(const CallPtr& call);
void getReadiness(const CallPtr& call);
void attach(const CallPtr& call);
///@}

}  // namespace runelgw

#endif  // RUNELGW_API_ROUTES_H_
