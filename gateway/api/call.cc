// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/call.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iterator>
#include <utility>

#include "gateway/api/scope.h"

namespace runelgw {
namespace {

// Whether the list of a conditional header has @p etag, or is "*" and there is something.
bool lists(const std::string& header, const std::string& etag) {
  if (header == "*") {
    return !etag.empty();
  }
  return !etag.empty() && header.find(etag) != std::string::npos;
}

// Whether the registry makes its changes, and writes them to the database later.
bool changesFleet(const Route& route) {
  constexpr decltype(Route::handler) kOthers[] = {runTask,     sendClause,     logIn,
                                                  logOut,      startOperation, cancelOperation,
                                                  createToken, revokeToken};
  return route.changes &&
         std::find(std::begin(kOthers), std::end(kOthers), route.handler) == std::end(kOthers);
}

HttpResponse notStored(const std::string& why) {
  return responseOf(ApiProblem{ProblemType::storage,
                               "it is done, but the database has not stored it yet: " + why});
}

}  // namespace

std::string etagOf(const Json& json) {
  return "\"" + hashOf(textOf(json)).substr(0, 16) + "\"";
}

ApiState::ApiState(ApiParts itsParts, ApiSettings itsSettings, ApiHooks itsHooks,
                   AuthClocks itsClocks, std::string cursorKey)
    : parts(itsParts),
      settings(itsSettings),
      hooks(std::move(itsHooks)),
      clocks(std::move(itsClocks)),
      cursors(std::move(cursorKey)),
      audit(parts.store, hooks.log, clocks),
      operations(parts.store, parts.router,
                 OperationLimits{settings.mostOperations, settings.resultBytes}, clocks,
                 [&registry = parts.registry](std::uint64_t id) {
                   registry.events().publish(EventType::operation, 0, "", std::to_string(id));
                 }),
      streams(parts.registry, parts.auth) {}

ApiCall::ApiCall(std::shared_ptr<ApiState> itsState, std::shared_ptr<HttpExchange> itsExchange,
                 const Route* itsRoute, std::vector<std::string> pathValues)
    : state(std::move(itsState)),
      exchange(std::move(itsExchange)),
      route(itsRoute),
      values_(std::move(pathValues)),
      start_(state->clocks.steady()) {
  if (route != nullptr &&
      std::string_view(route->path).find("/devices/{name}") != std::string_view::npos) {
    devices = values_[0];  // also of a request that is refused
  }
}

void ApiCall::json(unsigned status, const Json& content) {
  respond(jsonResponse(status, textOf(content)));
}

void ApiCall::noContent() {
  respond(emptyResponse(204));
}

void ApiCall::respond(HttpResponse response) {
  if (finished_) {
    return;
  }
  finish(response.status);
  if (response.status >= 300 || route == nullptr || !changesFleet(*route)) {
    exchange->respond(std::move(response));
    return;
  }
  // Who reads that it is done may rely on it, also after a crash.
  state->parts.registry.flush([self = shared_from_this(), response = std::move(response)](
                                  const std::optional<std::string>& error) {
    self->exchange->respond(error ? notStored(*error) : response);
  });
}

void ApiCall::handedOver(unsigned status) {
  finish(status);
}

void ApiCall::fail(const ApiProblem& problem) {
  if (outcome.empty()) {
    outcome = std::string("refused (") + nameOf(problem.type) + ")";
  }
  if (detail.empty()) {
    detail = problem.detail;
  }
  respond(responseOf(problem));
}

void ApiCall::fail(ProblemType type, std::string text, std::string hint) {
  fail(ApiProblem{type, std::move(text), std::move(hint)});
}

void ApiCall::fail(const runel::Error& error, ProblemType type) {
  fail(type, error.text());
}

void ApiCall::fail(const Fields& fields) {
  fail(ApiProblem{ProblemType::malformedRequest, fields.error(), "", fields.pointer()});
}

void ApiCall::finish(unsigned status) {
  finished_ = true;
  const double seconds = std::chrono::duration<double>(state->clocks.steady() - start_).count();
  state->parts.metrics.httpEnded(route == nullptr ? "none" : route->operationId, status, seconds);
  if (route != nullptr && route->changes && !harmless) {
    record(status);
  }
}

void ApiCall::record(unsigned status) {
  AuditRecord entry;
  if (known) {
    entry.who = who.label();
    entry.role = nameOf(who.role);
  }
  entry.from = request().peer;
  entry.what = what.empty() ? route->operationId : what;
  entry.devices = devices;
  entry.outcome = outcome.empty() ? (status < 400 ? "done" : "refused") : outcome;
  entry.detail = detail;
  const bool flood = status == 429 || !known;
  if (status >= 400 && flood) {
    state->audit.addRefused(std::move(entry), known ? who.label() : request().peer);
    return;
  }
  state->audit.add(std::move(entry), status >= 400);
}

const Device* ApiCall::device() {
  const Device* const found = state->parts.registry.find(value());
  devices = value();
  if (found == nullptr || !sees(state->parts.registry, who, *found)) {
    fail(ProblemType::notFound, "there is no such device, or the token does not include it");
    return nullptr;
  }
  return found;
}

bool ApiCall::mayRun(TaskKind kind) {
  if (who.kinds.has(kind)) {
    return true;
  }
  fail(ProblemType::forbidden,
       std::string("the token has no tasks of the kind \"") + nameOf(kind) + "\"");
  return false;
}

// All that selects the items: a cursor is not valid for another list.
std::string ApiCall::listName() const {
  std::string name = route->operationId;
  for (const std::string& part : values_) {
    name.append("\n/").append(part);
  }
  for (const auto& [parameterName, text] : request().query) {
    if (parameterName != "cursor" && parameterName != "limit" && parameterName != "fields") {
      name.append("\n").append(parameterName).append("=").append(text);
    }
  }
  return name;
}

std::optional<PageWish> ApiCall::page() {
  PageWish page;
  if (const std::string* const limit = parameter("limit")) {
    const auto end = std::from_chars(limit->data(), limit->data() + limit->size(), page.limit);
    if (end.ec != std::errc() || end.ptr != limit->data() + limit->size() || page.limit < 1 ||
        page.limit > kMaxPage) {
      fail(ProblemType::malformedRequest, "\"limit\" must be a number from 1 to 1000");
      return std::nullopt;
    }
  }
  if (const std::string* const cursor = parameter("cursor")) {
    std::optional<std::string> position = state->cursors.read(listName(), *cursor);
    if (!position || position->empty()) {
      fail(ProblemType::invalidCursor, "the cursor does not belong to this list",
           "begin again without a cursor");
      return std::nullopt;
    }
    page.position = std::move(*position);
  }
  return page;
}

Json ApiCall::cursorAfter(std::string_view position) const {
  return state->cursors.make(listName(), position);
}

std::optional<std::int64_t> ApiCall::time(std::string_view name) {
  const std::string* const text = parameter(name);
  if (text == nullptr) {
    return 0;
  }
  const std::optional<std::int64_t> time = timeFrom(*text);
  if (!time) {
    fail(ProblemType::malformedRequest,
         "\"" + std::string(name) + "\" must be a time such as 2026-11-23T07:22:33Z");
  }
  return time;
}

bool ApiCall::matches(const std::string& current, bool needed) {
  const std::string* const match = request().header("if-match");
  const std::string* const none = request().header("if-none-match");
  if ((match != nullptr && !lists(*match, current)) || (none != nullptr && lists(*none, current))) {
    fail(ProblemType::changed, "it is not what the condition of the request names",
         "read it again");
    return false;
  }
  if (needed && !current.empty() && match == nullptr) {
    fail(ProblemType::unconditional, "it exists already",
         "send its ETag in If-Match, so that no change of somebody else is lost");
    return false;
  }
  return true;
}

std::shared_ptr<Permit> ApiCall::permit() const {
  return std::make_shared<ClientPermit>(state->parts.registry, state->parts.auth, state->audit, who,
                                        request().peer);
}

}  // namespace runelgw
