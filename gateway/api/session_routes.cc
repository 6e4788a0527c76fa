// SPDX-License-Identifier: Apache-2.0
// Routes for logging in and out.
#include <utility>
#include <variant>

#include "gateway/api/call.h"

namespace runelgw {
namespace {

const char* nameOf(Way way) {
  switch (way) {
    case Way::token:
      return "token";
    case Way::session:
      return "session";
    case Way::certificate:
      return "certificate";
  }
  return "";
}

Json jsonOf(const ApiState& state, const Identity& who) {
  const TokenRecord* const token = state.parts.auth.find(who.token);
  return {{"name", who.name},       {"role", nameOf(who.role)},
          {"groups", who.groups},   {"kinds", who.kinds.names()},
          {"way", nameOf(who.way)}, {"expires", timeOf(token == nullptr ? 0 : token->expires)}};
}

}  // namespace

void logIn(const CallPtr& call) {
  Fields fields(call->body, {"token"});
  const std::string secret = fields.text("token", 256);
  if (!fields.ok()) {
    call->fail(fields);
    return;
  }
  Auth& auth = call->state->parts.auth;
  auto session = auth.login(secret, call->request().peer);
  if (const auto* const refusal = std::get_if<AuthRefusal>(&session)) {
    ApiProblem problem{ProblemType::unauthorized, refusal->text};
    if (refusal->status != 401) {
      problem.type = refusal->status == 429 ? ProblemType::tooMany : ProblemType::unavailable;
    }
    problem.retryAfter = refusal->retryAfter;
    call->fail(problem);
    return;
  }
  const std::string& cookie = std::get<std::string>(session);
  const std::optional<Identity> who = auth.peek(cookie);
  if (who) {
    call->who = *who;
    call->known = true;
  }
  HttpResponse response = jsonResponse(200, textOf(jsonOf(*call->state, call->who)));
  call->respond(std::move(response.with("Set-Cookie", sessionCookie(cookie, call->request().tls))));
}

void logOut(const CallPtr& call) {
  if (call->who.way != Way::session) {
    call->fail(ProblemType::conflict, "the request did not come by a session");
    return;
  }
  call->state->parts.auth.logout(call->who);
  HttpResponse response = emptyResponse(204);
  call->respond(std::move(response.with("Set-Cookie", sessionCookie("", call->request().tls))));
}

void whoAmI(const CallPtr& call) {
  call->json(200, jsonOf(*call->state, call->who));
}

}  // namespace runelgw
