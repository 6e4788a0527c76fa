// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/problem.h"

#include <iterator>

#include "gateway/api/json_text.h"

namespace runelgw {
namespace {

struct Row {
  ProblemType type;
  unsigned status;
  const char* name;
  const char* title;
};

// In the order of ProblemType.
constexpr Row kRows[] = {
    {ProblemType::malformedRequest, 400, "malformed-request", "The request is not valid"},
    {ProblemType::invalidQuery, 400, "invalid-query", "The query for devices is not valid"},
    {ProblemType::invalidCursor, 400, "invalid-cursor", "The cursor is not valid"},
    {ProblemType::secretInUrl, 400, "secret-in-url", "A token must not be in the address"},
    {ProblemType::unauthorized, 401, "unauthorized", "Authentication is needed"},
    {ProblemType::forbidden, 403, "forbidden", "Not allowed"},
    {ProblemType::crossSite, 403, "cross-site", "The request comes from another site"},
    {ProblemType::notFound, 404, "not-found", "Not found"},
    {ProblemType::methodNotAllowed, 405, "method-not-allowed", "The method is not allowed"},
    {ProblemType::conflict, 409, "conflict", "The state does not allow it"},
    {ProblemType::changed, 412, "changed", "It was changed meanwhile"},
    {ProblemType::tooLarge, 413, "too-large", "The request is too large"},
    {ProblemType::mediaType, 415, "media-type", "The body must be JSON"},
    {ProblemType::refusedTask, 422, "refused-task", "The gateway refuses the task"},
    {ProblemType::keyReused, 422, "key-reused", "The idempotency key was used before"},
    {ProblemType::unconditional, 428, "unconditional", "The change needs a condition"},
    {ProblemType::tooMany, 429, "too-many", "Too many requests"},
    {ProblemType::storage, 503, "storage", "The database is not available"},
    {ProblemType::unavailable, 503, "unavailable", "The gateway is not available"},
};

constexpr bool rowsAreInOrder() {
  for (std::size_t row = 0; row < std::size(kRows); ++row) {
    if (static_cast<std::size_t>(kRows[row].type) != row) {
      return false;
    }
  }
  return true;
}

static_assert(rowsAreInOrder(), "the table follows the order of ProblemType");

const Row& rowOf(ProblemType type) {
  return kRows[static_cast<std::size_t>(type)];
}

}  // namespace

unsigned statusOf(ProblemType type) {
  return rowOf(type).status;
}

const char* nameOf(ProblemType type) {
  return rowOf(type).name;
}

HttpResponse responseOf(const ApiProblem& problem) {
  const Row& row = rowOf(problem.type);
  Json body = {{"type", std::string("/problems/") + row.name},
               {"title", row.title},
               {"status", row.status},
               {"detail", printable(problem.detail)}};
  if (!problem.hint.empty()) {
    body["hint"] = printable(problem.hint);
  }
  if (!problem.pointer.empty()) {
    body["pointer"] = printable(problem.pointer);
  }
  HttpResponse response = jsonResponse(row.status, textOf(body), "application/problem+json");
  if (problem.retryAfter > 0) {
    response.with("Retry-After", std::to_string(problem.retryAfter));
  }
  if (problem.type == ProblemType::unauthorized) {
    response.with("WWW-Authenticate", "Bearer realm=\"runelgw\"");
  }
  return response;
}

}  // namespace runelgw
