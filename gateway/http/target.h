// SPDX-License-Identifier: Apache-2.0
// Decodes the target of a request.
#ifndef RUNELGW_HTTP_TARGET_H_
#define RUNELGW_HTTP_TARGET_H_

#include <optional>
#include <string>
#include <string_view>

#include "gateway/http/http.h"
#include "gateway/http/refusal.h"

namespace runelgw {

/// Decodes `target` of @p request into its path and its query, once: "%2541" becomes "%41". Refuses
/// what other programs could understand in another way: "..", an encoded slash, control characters,
/// invalid UTF-8.
[[nodiscard]] std::optional<HttpRefusal> decodeTarget(HttpRequest& request);

/// @p text with its percent encodings replaced, without a value if one is malformed.
[[nodiscard]] std::optional<std::string> percentDecoded(std::string_view text);

}  // namespace runelgw

#endif  // RUNELGW_HTTP_TARGET_H_
