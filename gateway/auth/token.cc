// SPDX-License-Identifier: Apache-2.0
#include "gateway/auth/token.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <sys/random.h>

#include "client/core/sha256.h"

namespace runelgw {
namespace {

constexpr std::size_t kSecretBytes = 32;
constexpr std::string_view kCertificatePrefix = "certificate:";
constexpr std::string_view kBase64Url =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

runel::Error invalid(std::string text) {
  return {runel::Kind::local, runel::Cause::other, std::move(text), EINVAL};
}

// 256 bits are 42 characters and 4 bits.
std::string encode(const std::array<unsigned char, kSecretBytes>& bytes) {
  std::string text;
  unsigned bits = 0;
  unsigned count = 0;
  for (const unsigned char byte : bytes) {
    bits = (bits << 8) | byte;
    for (count += 8; count >= 6; count -= 6) {
      text += kBase64Url[(bits >> (count - 6)) & 63U];
    }
    bits &= (1U << count) - 1;
  }
  text += kBase64Url[(bits << (6 - count)) & 63U];
  return text;
}

bool isNameCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || character == '.' || character == '_' ||
         character == '-';
}

// Without a value the wish is fine.
std::optional<std::string> problemOf(const TokenWish& wish) {
  if (!isTokenName(wish.name)) {
    return "the name of a token is 1 to 64 letters, digits, '.', '_' and '-', and begins with a "
           "letter, a digit or '_'";
  }
  const std::int64_t lifetime = wish.lifetime.value_or(kDefaultTokenLifetime);
  if (lifetime <= 0 || lifetime > kMaxTokenLifetime) {
    return "the lifetime of a token is more than nothing and at most 3660 days";
  }
  const KindSet allowed = KindSet::of(wish.role);
  for (const std::string& name : wish.kinds) {
    const std::optional<TaskKind> kind = findTaskKind(name);
    if (!kind) {
      return "unknown kind of task; the kinds are look, read, write, run, led, state and power";
    }
    if (!allowed.has(*kind)) {
      return "the role " + std::string(nameOf(wish.role)) + " has no tasks of the kind " + name;
    }
  }
  if (wish.certificate.size() > 255) {
    return "the name of a certificate has at most 255 bytes";
  }
  return std::nullopt;
}

}  // namespace

runel::Result<std::string> randomSecret() {
  std::array<unsigned char, kSecretBytes> bytes{};
  // Up to 256 bytes are not interrupted by a signal once the kernel has its random bits.
  ssize_t got = 0;
  do {
    got = getrandom(bytes.data(), bytes.size(), 0);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(bytes.size())) {
    return runel::Error::local("random bits", got < 0 ? errno : EIO);
  }
  return encode(bytes);
}

bool looksLikeToken(std::string_view text) {
  return text.size() == kTokenLength && text.substr(0, kTokenPrefix.size()) == kTokenPrefix &&
         text.substr(kTokenPrefix.size()).find_first_not_of(kBase64Url) == std::string_view::npos;
}

std::string hashOf(std::string_view text) {
  runel::Sha256 sum;
  sum.add(text);
  return sum.finish();
}

std::string certificateHash(std::string_view name) {
  return std::string(kCertificatePrefix) += name;
}

std::string certificateOf(const TokenRecord& record) {
  if (record.hash.compare(0, kCertificatePrefix.size(), kCertificatePrefix) != 0) {
    return "";
  }
  return record.hash.substr(kCertificatePrefix.size());
}

bool isTokenName(std::string_view name) {
  return !name.empty() && name.size() <= 64 && name[0] != '.' && name[0] != '-' &&
         std::all_of(name.begin(), name.end(), isNameCharacter);
}

runel::Result<NewToken> makeToken(const TokenWish& wish, std::uint64_t id, std::int64_t now) {
  if (std::optional<std::string> problem = problemOf(wish)) {
    return invalid(std::move(*problem));
  }
  NewToken token;
  token.record.id = id;
  token.record.name = wish.name;
  token.record.role = nameOf(wish.role);
  token.record.groups = wish.groups;
  token.record.kinds = wish.kinds;
  token.record.created = now;
  token.record.expires = now + wish.lifetime.value_or(kDefaultTokenLifetime);
  if (!wish.certificate.empty()) {
    token.record.hash = certificateHash(wish.certificate);
    return token;
  }
  runel::Result<std::string> secret = randomSecret();
  if (!secret) {
    return secret.error();
  }
  token.secret = std::string(kTokenPrefix) + *secret;
  token.record.hash = hashOf(token.secret);
  return token;
}

bool isUsable(const TokenRecord& record, std::int64_t now) {
  return record.revoked == 0 && now < record.expires;
}

Role roleOf(const TokenRecord& record) {
  return findRole(record.role).value_or(Role::viewer);
}

KindSet kindsOf(const TokenRecord& record) {
  const KindSet allowed = KindSet::of(roleOf(record));
  if (record.kinds.empty()) {
    return allowed;
  }
  KindSet kinds;
  for (const std::string& name : record.kinds) {
    if (const std::optional<TaskKind> kind = findTaskKind(name)) {
      kinds.add(*kind);
    }
  }
  return kinds.with(allowed);
}

}  // namespace runelgw
