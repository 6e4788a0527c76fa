// SPDX-License-Identifier: Apache-2.0
// Routes about the gateway itself.
#include <utility>

#include "gateway/api/call.h"

namespace runelgw {
namespace {

constexpr const char* kDeviceStates[] = {"online", "offline", "waiting", "denied", "quarantined"};

void answerText(const CallPtr& call, unsigned status, const std::string& text) {
  call->respond(textResponse(status, text + "\n"));
}

}  // namespace

void getHealth(const CallPtr& call) {
  answerText(call, 200, "ok");
}

void getReadiness(const CallPtr& call) {
  std::optional<std::string> reason;
  if (call->state->hooks.notReady) {
    reason = call->state->hooks.notReady();
  }
  if (!reason && !call->state->parts.store.state().connected) {
    reason = "the database is out of reach";
  }
  if (reason) {
    ApiProblem problem{ProblemType::unavailable, *reason};
    problem.retryAfter = 5;
    call->fail(problem);
    return;
  }
  answerText(call, 200, "ready");
}

void getMetrics(const CallPtr& call) {
  Figures figures;
  if (call->state->hooks.figures) {
    figures = call->state->hooks.figures();
  }
  figures.sessions = call->state->parts.auth.sessions();
  figures.runningOperations = call->state->operations.running();
  figures.eventSubscribers = call->state->streams.size();
  HttpResponse response = textResponse(200, call->state->parts.metrics.text(figures));
  response.headers.clear();
  call->respond(std::move(response.with("Content-Type", Metrics::contentType())));
}

void getOpenApi(const CallPtr& call) {
  call->respond(jsonResponse(200, std::string(openApiDocument())));
}

void getInfo(const CallPtr& call) {
  const auto& counts = call->state->parts.registry.counts();
  Json devices = Json::object();
  // A client that is limited to groups does not learn how many others there are.
  if (call->who.groups.empty()) {
    for (std::size_t kind = 0; kind < counts.size(); ++kind) {
      devices[kDeviceStates[kind]] = counts[kind];
    }
  }
  call->json(200, {{"version", RUNELGW_VERSION},
                   {"time", timeOf(call->state->clocks.wall())},
                   {"devices", std::move(devices)},
                   {"operations", call->state->operations.running()}});
}

void attach(const CallPtr& call) {
  if (!call->request().wantsWebSocket()) {
    call->fail(ProblemType::malformedRequest, "this path is for WebSockets",
               "ask for an upgrade with the subprotocol runel.attach.v1");
    return;
  }
  if (!call->state->hooks.attach) {
    call->fail(ProblemType::unavailable, "this gateway does not attach clients");
    return;
  }
  call->handedOver(101);
  call->state->hooks.attach(call->exchange, call->permit());
}

}  // namespace runelgw
