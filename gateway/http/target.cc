// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/target.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "text/utf8.h"

namespace runelgw {
namespace {

constexpr std::size_t kMostParameters = 100;

// The value of a hexadecimal digit, or -1.
int digitOf(char byte) {
  return byte >= '0' && byte <= '9'   ? byte - '0'
         : byte >= 'a' && byte <= 'f' ? byte - 'a' + 10
         : byte >= 'A' && byte <= 'F' ? byte - 'A' + 10
                                      : -1;
}

HttpRefusal malformed(std::string text) {
  return {400, std::move(text)};
}

bool isControl(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code < 0x20 || code == 0x7f;
}

bool hasDots(std::string_view path) {
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    const std::string_view part = path.substr(0, end);
    if (part == "." || part == "..") {
      return true;
    }
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return false;
}

bool hasEncodedSlash(std::string_view path) {
  for (std::size_t i = path.find('%'); i != std::string_view::npos; i = path.find('%', i + 1)) {
    if (path.substr(i, 3) == "%2f" || path.substr(i, 3) == "%2F") {
      return true;
    }
  }
  return false;
}

std::optional<HttpRefusal> decodePath(std::string_view encoded, HttpRequest& request) {
  auto path = percentDecoded(encoded);
  if (!path || hasEncodedSlash(encoded) || !zell::isUtf8(*path) ||
      std::any_of(path->begin(), path->end(), isControl) || path->find('\\') != std::string::npos) {
    return malformed("The path is encoded wrongly.");
  }
  if (hasDots(*path)) {
    return malformed("The path must not have parts \".\" and \"..\".");
  }
  request.path = *std::move(path);
  return std::nullopt;
}

std::optional<std::string> decodeQueryPart(std::string_view encoded) {
  std::string text(encoded);
  std::replace(text.begin(), text.end(), '+', ' ');
  auto decoded = percentDecoded(text);
  if (!decoded || !zell::isUtf8(*decoded) || decoded->find('\0') != std::string::npos) {
    return std::nullopt;
  }
  return decoded;
}

std::optional<HttpRefusal> decodeQuery(std::string_view query, HttpRequest& request) {
  while (!query.empty()) {
    const std::size_t end = std::min(query.find('&'), query.size());
    const std::string_view part = query.substr(0, end);
    query.remove_prefix(std::min(end + 1, query.size()));
    if (part.empty()) {
      continue;
    }
    const std::size_t equals = std::min(part.find('='), part.size());
    auto name = decodeQueryPart(part.substr(0, equals));
    auto value = decodeQueryPart(part.substr(std::min(equals + 1, part.size())));
    if (!name || !value || request.query.size() == kMostParameters) {
      return malformed("The query is encoded wrongly or has too many parameters.");
    }
    request.query.emplace_back(*std::move(name), *std::move(value));
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? digitOf(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? digitOf(text[i + 2]) : -1;
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
}

std::optional<HttpRefusal> decodeTarget(HttpRequest& request) {
  const std::string_view target = request.target;
  const std::size_t mark = std::min(target.find('?'), target.size());
  request.query.clear();
  if (auto refusal = decodePath(target.substr(0, mark), request)) {
    return refusal;
  }
  return decodeQuery(target.substr(std::min(mark + 1, target.size())), request);
}

}  // namespace runelgw
