// SPDX-License-Identifier: Apache-2.0
// Tokens: how they are made, what is stored of them, and how their text looks. No state and no I/O
// but for random bits.
#ifndef RUNELGW_AUTH_TOKEN_H_
#define RUNELGW_AUTH_TOKEN_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <runel/result.h>

#include "gateway/auth/role.h"
#include "gateway/store/records.h"

namespace runelgw {

/// Each token begins with it, so that scanners for secrets find a token in the wrong place.
inline constexpr std::string_view kTokenPrefix = "rgw_";
/// The length of a token: the prefix and 256 bits in base64url.
inline constexpr std::size_t kTokenLength = 47;
/// The lifetime of a token without a chosen one, and the longest one, in milliseconds.
inline constexpr std::int64_t kDefaultTokenLifetime = 90LL * 86400 * 1000;
inline constexpr std::int64_t kMaxTokenLifetime = 3660LL * 86400 * 1000;

/// 256 random bits as 43 characters of base64url. The error is one of the system.
[[nodiscard]] runel::Result<std::string> randomSecret();
/// Whether @p text has the form of a token. Nothing else is hashed.
[[nodiscard]] bool looksLikeToken(std::string_view text);
/// What is stored of the token @p text: 64 hex digits.
[[nodiscard]] std::string hashOf(std::string_view text);
/// What is stored in place of a hash for clients with the certificate name @p name. No hash has
/// this form.
[[nodiscard]] std::string certificateHash(std::string_view name);
/// The name of the certificate that @p record stands for, empty for a token.
[[nodiscard]] std::string certificateOf(const TokenRecord& record);

/// Whether @p name may name a token: 1 to 64 letters, digits, '.', '_' and '-', not a '.' or '-' at
/// the start.
[[nodiscard]] bool isTokenName(std::string_view name);

/// What a new token is to be.
struct TokenWish {
  std::string name;
  Role role = Role::viewer;
  std::vector<std::string> groups;       ///< only devices of these groups; empty: all devices
  std::vector<std::string> kinds;        ///< only these kinds of task; empty: all of the role
  std::optional<std::int64_t> lifetime;  ///< in milliseconds; by default 90 days
  std::string certificate;  ///< not empty: for clients with this name in their certificate
};

/// A token that no client knows yet.
struct NewToken {
  TokenRecord record;  ///< to be saved
  std::string secret;  ///< to be shown once; empty for a certificate
};

/// Makes the token @p id at the time @p now, in milliseconds since 1970. The error is one sentence
/// about the wish.
[[nodiscard]] runel::Result<NewToken> makeToken(const TokenWish& wish, std::uint64_t id,
                                                std::int64_t now);

/// Whether @p record may be used at the time @p now.
[[nodiscard]] bool isUsable(const TokenRecord& record, std::int64_t now);

/// The role of @p record. A role of a later version counts as viewer.
[[nodiscard]] Role roleOf(const TokenRecord& record);
/// The kinds of task that @p record allows.
[[nodiscard]] KindSet kindsOf(const TokenRecord& record);

}  // namespace runelgw

#endif  // RUNELGW_AUTH_TOKEN_H_
