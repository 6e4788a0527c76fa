// SPDX-License-Identifier: Apache-2.0
// One request on its way through the API, and what all requests share. Only for the sources of this
// directory.
#ifndef RUNELGW_API_CALL_H_
#define RUNELGW_API_CALL_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/api/api.h"
#include "gateway/api/audit.h"
#include "gateway/api/cursor.h"
#include "gateway/api/event_streams.h"
#include "gateway/api/json_text.h"
#include "gateway/api/operations.h"
#include "gateway/api/problem.h"
#include "gateway/api/routes.h"

namespace runelgw {

/// What all requests share. Outlives each of them.
struct ApiState {
  ApiState(ApiParts itsParts, ApiSettings itsSettings, ApiHooks itsHooks, AuthClocks itsClocks,
           std::string cursorKey);

  ApiParts parts;
  ApiSettings settings;
  ApiHooks hooks;
  AuthClocks clocks;
  Cursors cursors;
  Audit audit;
  Operations operations;
  EventStreams streams;
};

/// A page that a client asks for.
struct PageWish {
  std::size_t limit = 100;
  std::string position;  ///< of the cursor; empty: the first page
};

/// One request. Exactly one of the answering functions is called, once.
class ApiCall : public std::enable_shared_from_this<ApiCall> {
 public:
  ApiCall(std::shared_ptr<ApiState> itsState, std::shared_ptr<HttpExchange> itsExchange,
          const Route* itsRoute, std::vector<std::string> pathValues);

  ///@{
  /// Answer.
  void json(unsigned status, const Json& content);
  void noContent();
  void respond(HttpResponse response);
  void fail(const ApiProblem& problem);
  void fail(ProblemType type, std::string text, std::string hint = "");
  /// A failure of the registry, such as an unknown group: a conflict with the state, or @p type.
  void fail(const runel::Error& error, ProblemType type = ProblemType::conflict);
  void fail(const Fields& fields);
  /// Counts and records a request that is answered by a stream or a WebSocket.
  void handedOver(unsigned status);
  ///@}

  [[nodiscard]] const HttpRequest& request() const { return exchange->request(); }
  /// The value at @p place of "{...}" in the path.
  [[nodiscard]] const std::string& value(std::size_t place = 0) const { return values_[place]; }
  /// A parameter of the query; null without it.
  [[nodiscard]] const std::string* parameter(std::string_view name) const {
    return request().parameter(name);
  }
  /// The device that the path names; null if it does not exist for this client, and then the call
  /// is answered.
  [[nodiscard]] const Device* device();
  /// Whether the client may run tasks of @p kind; if not, the call is answered.
  [[nodiscard]] bool mayRun(TaskKind kind);
  /// The page of the list of this route and its filters; without a value the call is answered.
  [[nodiscard]] std::optional<PageWish> page();
  /// The cursor after @p position in that list.
  [[nodiscard]] Json cursorAfter(std::string_view position) const;
  /// The time that the parameter @p name tells, 0 without it; without a value the call is answered.
  [[nodiscard]] std::optional<std::int64_t> time(std::string_view name);
  /// Compares If-Match and If-None-Match with @p current, the ETag of what exists, empty for
  /// nothing. With @p needed, a change of something that exists needs one of them. False: the call
  /// is answered.
  [[nodiscard]] bool matches(const std::string& current, bool needed);
  [[nodiscard]] std::shared_ptr<Permit> permit() const;

  std::shared_ptr<ApiState> state;
  std::shared_ptr<HttpExchange> exchange;
  const Route* route;  ///< null: unknown
  Identity who;        ///< only if `known`
  bool known = false;
  Json body;
  ///@{
  /// For the audit log.
  std::string what;     ///< by default the name of the operation
  std::string devices;  ///< names, or a query
  std::string outcome;  ///< by default from the status
  std::string detail;
  bool harmless = false;  ///< it changes nothing although its route may: it is not recorded
                          ///@}

 private:
  void finish(unsigned status);
  void record(unsigned status);
  [[nodiscard]] std::string listName() const;

  std::vector<std::string> values_;
  runel::Clock::time_point start_;
  bool finished_ = false;
};

/// A strong ETag of @p json.
[[nodiscard]] std::string etagOf(const Json& json);

}  // namespace runelgw

#endif  // RUNELGW_API_CALL_H_
