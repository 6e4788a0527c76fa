// SPDX-License-Identifier: Apache-2.0
// Errors as problem details (RFC 9457).
#ifndef RUNELGW_API_PROBLEM_H_
#define RUNELGW_API_PROBLEM_H_

#include <string>

#include "gateway/http/http.h"

namespace runelgw {

/// Each kind of error of the API. docs and clients rely on their names.
enum class ProblemType {
  malformedRequest,  ///< 400 the body, a header or a parameter is not valid
  invalidQuery,      ///< 400 the query that selects devices is not valid
  invalidCursor,     ///< 400 a cursor that this gateway did not give for this list
  secretInUrl,       ///< 400 a token in the address
  unauthorized,      ///< 401 no valid token, certificate or session
  forbidden,         ///< 403 the role, the groups or the kinds of the client do not allow it
  crossSite,         ///< 403 a change in a session, without the Origin of this server
  notFound,          ///< 404
  methodNotAllowed,  ///< 405
  conflict,          ///< 409 the state does not allow it
  changed,           ///< 412 somebody else has changed it
  tooLarge,          ///< 413
  mediaType,         ///< 415 the body is not application/json
  refusedTask,       ///< 422 the gateway does not pass such tasks on
  keyReused,         ///< 422 the same idempotency key with another body
  unconditional,     ///< 428 a change of something that exists needs If-Match
  tooMany,           ///< 429 a limit of rates or numbers
  storage,           ///< 503 the database does not store or read
  unavailable,       ///< 503 the gateway is not ready
};

/// One error.
struct ApiProblem {
  ProblemType type = ProblemType::malformedRequest;
  std::string detail;     ///< one sentence
  std::string hint{};     ///< what to do about it; may be empty
  std::string pointer{};  ///< JSON pointer to the wrong part of the body, or empty
  long retryAfter = 0;    ///< seconds; 0: not said
};

/// The HTTP status of @p type.
[[nodiscard]] unsigned statusOf(ProblemType type);
/// The last part of its `type`: "malformed-request".
[[nodiscard]] const char* nameOf(ProblemType type);
/// The whole answer. Texts that are no UTF-8 are made so.
[[nodiscard]] HttpResponse responseOf(const ApiProblem& problem);

}  // namespace runelgw

#endif  // RUNELGW_API_PROBLEM_H_
