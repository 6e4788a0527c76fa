// SPDX-License-Identifier: Apache-2.0
#include "gateway/api/cursor.h"

#include <algorithm>

#include "client/core/sha256.h"
#include "gateway/api/json_text.h"

namespace runelgw {
namespace {

constexpr std::size_t kSeal = 32;  // hex digits

std::string sum(const std::string& text) {
  runel::Sha256 sha;
  sha.add(text);
  return sha.finish();
}

}  // namespace

std::string toBase64Url(std::string_view bytes) {
  std::string text = toBase64(bytes);
  std::replace(text.begin(), text.end(), '+', '-');
  std::replace(text.begin(), text.end(), '/', '_');
  text.erase(text.find_last_not_of('=') + 1);
  return text;
}

std::optional<std::string> fromBase64Url(std::string_view text) {
  if (text.find_first_of("+/=") != std::string_view::npos) {
    return std::nullopt;
  }
  std::string plain(text);
  std::replace(plain.begin(), plain.end(), '-', '+');
  std::replace(plain.begin(), plain.end(), '_', '/');
  plain.append((4 - plain.size() % 4) % 4, '=');
  return fromBase64(plain);
}

// The key is hashed twice, so that nothing can be appended to a known text.
std::string Cursors::seal(std::string_view list, std::string_view position) const {
  std::string text = key_ + std::to_string(list.size()) + ":";
  text.append(list).append(position);
  return sum(key_ + sum(text)).substr(0, kSeal);
}

std::string Cursors::make(std::string_view list, std::string_view position) const {
  return toBase64Url(seal(list, position).append(position));
}

std::optional<std::string> Cursors::read(std::string_view list, std::string_view cursor) const {
  if (cursor.size() > 2048) {
    return std::nullopt;
  }
  const std::optional<std::string> text = fromBase64Url(cursor);
  if (!text || text->size() < kSeal) {
    return std::nullopt;
  }
  std::string position = text->substr(kSeal);
  if (seal(list, position) != text->substr(0, kSeal)) {
    return std::nullopt;
  }
  return position;
}

}  // namespace runelgw
