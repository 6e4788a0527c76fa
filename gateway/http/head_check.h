// SPDX-License-Identifier: Apache-2.0
// Refuses requests that a program in front of this server might understand in another way than this
// server. Such a difference lets a client smuggle a request past the other program's checks.
#ifndef RUNELGW_HTTP_HEAD_CHECK_H_
#define RUNELGW_HTTP_HEAD_CHECK_H_

#include <optional>
#include <string_view>

#include "gateway/http/refusal.h"

namespace runelgw {

/// Why @p head, the request line and the headers up to and including the empty line, is refused.
/// Empty if all programs understand it alike.
[[nodiscard]] std::optional<HttpRefusal> refusalOfHead(std::string_view head);

/// Whether @p bytes may be the beginning of a request. Recognizes a TLS client without waiting for
/// the end of a header that never comes.
[[nodiscard]] bool mayBeginRequest(std::string_view bytes);

/// Whether @p byte may be in a token of HTTP: a method or the name of a header.
[[nodiscard]] bool isTokenByte(char byte);
/// Whether @p byte may be in the value of a header.
[[nodiscard]] bool isValueByte(char byte);

/// Compares ASCII texts without regard to case.
[[nodiscard]] bool equalIgnoringCase(std::string_view one, std::string_view other);
[[nodiscard]] std::string_view withoutBlanks(std::string_view text);

}  // namespace runelgw

#endif  // RUNELGW_HTTP_HEAD_CHECK_H_
