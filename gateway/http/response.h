// SPDX-License-Identifier: Apache-2.0
// The bytes of an answer.
#ifndef RUNELGW_HTTP_RESPONSE_H_
#define RUNELGW_HTTP_RESPONSE_H_

#include <ctime>
#include <optional>
#include <string>

#include "gateway/http/http.h"
#include "gateway/http/refusal.h"

namespace runelgw {

/// What the head of an answer depends on besides the answer.
struct ResponseFrame {
  bool http11 = true;
  bool tls = false;
  bool keepAlive = false;
  std::optional<std::size_t>
      length;  ///< of the body; without it, the end of the connection ends the body
  std::time_t now = 0;
};

/// The status line and the headers. Without a value if a header of @p response would break the
/// message.
[[nodiscard]] std::optional<std::string> headOf(const HttpResponse& response,
                                                const ResponseFrame& frame);

/// Whether an answer with @p status has neither a body nor a length.
[[nodiscard]] bool isBodiless(unsigned status);

/// @p refusal as problem details.
[[nodiscard]] HttpResponse responseOf(const HttpRefusal& refusal);

/// One event of a stream, as it is sent.
[[nodiscard]] std::string eventText(const std::string& id, const std::string& event,
                                    const std::string& data);

}  // namespace runelgw

#endif  // RUNELGW_HTTP_RESPONSE_H_
