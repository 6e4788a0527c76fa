// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/api.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "gateway/api/call.h"
#include "gateway/api/routes.h"
#include "gateway/auth/token.h"

namespace runelgw {
namespace {

// The longest body of a client that has not shown who it is.
constexpr std::size_t kStrangerBody = 65536;

Credentials credentialsOf(const HttpRequest& request) {
  Credentials credentials;
  if (const std::string* const header = request.header("authorization")) {
    credentials.authorization = *header;
  }
  credentials.session = request.cookie(sessionCookieName(request.tls)).value_or("");
  credentials.certificate = request.clientCertificate;
  credentials.peer = request.peer;
  return credentials;
}

bool readsOnly(const std::string& method) {
  return method == "GET" || method == "HEAD";
}

// Addresses end up in logs, in histories and in Referer.
bool hasSecretInAddress(const HttpRequest& request) {
  for (std::size_t at = request.target.find(kTokenPrefix); at != std::string::npos;
       at = request.target.find(kTokenPrefix, at + 1)) {
    if (looksLikeToken(std::string_view(request.target).substr(at, kTokenLength))) {
      return true;
    }
  }
  return false;
}

// A browser sends the cookie of a session by itself. Its Origin tells which site makes it do so.
// The server has checked an Origin that is there.
bool isCrossSite(const ApiCall& call) {
  const HttpRequest& request = call.request();
  if (call.who.way != Way::session) {
    return false;
  }
  if (const std::string* const site = request.header("sec-fetch-site")) {
    if (*site != "same-origin" && *site != "none") {
      return true;
    }
  }
  const bool guarded = !readsOnly(request.method) || request.wantsWebSocket();
  return guarded && request.header("origin") == nullptr;
}

bool checkParameters(ApiCall& call) {
  for (std::size_t at = 0; at < call.request().query.size(); ++at) {
    const std::string& name = call.request().query[at].first;
    if (!hasParameter(*call.route, name)) {
      call.fail(ProblemType::malformedRequest, "the parameter \"" + name + "\" is not known here");
      return false;
    }
    for (std::size_t other = 0; other < at; ++other) {
      if (call.request().query[other].first == name) {
        call.fail(ProblemType::malformedRequest, "the parameter \"" + name + "\" occurs twice");
        return false;
      }
    }
  }
  return true;
}

bool isJson(const HttpRequest& request) {
  const std::string* const type = request.header("content-type");
  if (type == nullptr) {
    return false;
  }
  const std::string name = type->substr(0, type->find_first_of("; \t"));
  constexpr std::string_view kName = "application/json";
  if (name.size() != kName.size()) {
    return false;
  }
  for (std::size_t at = 0; at < name.size(); ++at) {
    const char letter =
        name[at] >= 'A' && name[at] <= 'Z' ? static_cast<char>(name[at] + 32) : name[at];
    if (letter != kName[at]) {
      return false;
    }
  }
  return true;
}

bool readBody(ApiCall& call) {
  const std::string& text = call.request().body;
  if (call.route->body == BodyKind::none) {
    if (!text.empty()) {
      call.fail(ProblemType::malformedRequest, "this request has no body");
    }
    return text.empty();
  }
  if (!isJson(call.request())) {
    call.fail(ProblemType::mediaType, "the body must be JSON",
              "send it with Content-Type: application/json");
    return false;
  }
  std::string error;
  std::optional<Json> json = parseJson(text, error);
  if (!json || !json->is_object()) {
    call.fail(ProblemType::malformedRequest, "the body is not a JSON object: " + error);
    return false;
  }
  call.body = std::move(*json);
  return true;
}

bool isAllowed(const Identity& who, Need need) {
  switch (need) {
    case Need::open:
    case Need::viewer:
      return true;
    case Need::deviceOperator:
      return who.role >= Role::deviceOperator;
    case Need::admin:
      return who.role == Role::admin;
    case Need::owner:
      return who.role == Role::admin && who.unlimited();
  }
  return false;
}

bool needsNoToken(const ApiState& state, const Route& route) {
  return route.need == Need::open || (state.settings.openMetrics && route.handler == getMetrics);
}

// Whether the client is known and may use the route.
bool authorize(ApiCall& call) {
  Auth::Answer answer = call.state->parts.auth.authenticate(credentialsOf(call.request()));
  if (const auto* const refusal = std::get_if<AuthRefusal>(&answer)) {
    if (!refusal->name.empty()) {
      call.detail = "token " + refusal->name + ": " + refusal->text;
    }
    ApiProblem problem{refusal->status == 429 ? ProblemType::tooMany : ProblemType::unauthorized,
                       refusal->text};
    problem.retryAfter = refusal->retryAfter;
    call.fail(problem);
    return false;
  }
  call.who = std::move(std::get<Identity>(answer));
  call.known = true;
  if (isCrossSite(call)) {
    call.fail(ProblemType::crossSite, "a session is only for pages of this server");
    return false;
  }
  if (!isAllowed(call.who, call.route->need)) {
    call.fail(ProblemType::forbidden,
              std::string("this needs the role ") + nameOf(call.route->need));
    return false;
  }
  return true;
}

}  // namespace

struct Api::Data {
  std::shared_ptr<ApiState> state;
};

Api::Api(ApiParts parts, ApiSettings settings, ApiHooks hooks, AuthClocks clocks)
    : data_(std::make_unique<Data>()) {
  // Without random bits there is no token either; cursors are then at least not those of others.
  const runel::Result<std::string> secret = randomSecret();
  std::string key = secret ? *secret : std::to_string(clocks.wall());
  data_->state = std::make_shared<ApiState>(parts, settings, std::move(hooks), std::move(clocks),
                                            std::move(key));
}

Api::~Api() {
  data_->state->streams.clear();
}

void Api::load(const Snapshot& snapshot) {
  data_->state->operations.load(snapshot);
}

void Api::handle(const std::shared_ptr<HttpExchange>& exchange) {
  const HttpRequest& request = exchange->request();
  RouteMatch match = findRoute(request.method, request.path);
  const auto call =
      std::make_shared<ApiCall>(data_->state, exchange, match.route, std::move(match.values));
  if (hasSecretInAddress(request)) {
    call->fail(ProblemType::secretInUrl, "a token in an address is readable for others",
               "revoke this token, and send tokens in the Authorization header only");
    return;
  }
  if (match.route == nullptr && match.allowed.empty()) {
    call->fail(ProblemType::notFound, "there is nothing at this path");
    return;
  }
  if (match.route == nullptr) {
    HttpResponse response = responseOf(
        {ProblemType::methodNotAllowed, "this path has other methods: " + match.allowed});
    call->respond(std::move(response.with("Allow", match.allowed)));
    return;
  }
  if (!needsNoToken(*data_->state, *match.route) && !authorize(*call)) {
    return;
  }
  if (checkParameters(*call) && readBody(*call)) {
    match.route->handler(call);
  }
}

std::size_t Api::bodyLimit(const HttpRequest& request) const {
  const RouteMatch match = findRoute(request.method, request.path);
  if (match.route == nullptr || match.route->body == BodyKind::none) {
    return kStrangerBody;
  }
  const ApiState& state = *data_->state;
  if (match.route->need == Need::open || !state.parts.auth.knows(credentialsOf(request))) {
    return std::min(kStrangerBody, state.settings.bodyBytes);
  }
  return match.route->body == BodyKind::task ? state.settings.taskBodyBytes
                                             : state.settings.bodyBytes;
}

void Api::tick() {
  data_->state->streams.tick();
  data_->state->operations.tick();
}

void Api::stop() {
  data_->state->operations.stop();
}

std::size_t Api::runningOperations() const {
  return data_->state->operations.running();
}

}  // namespace runelgw
