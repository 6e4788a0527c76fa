// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string_view>

#include "gateway/http/head_check.h"
#include "gateway/http/http.h"

namespace runelgw {
namespace {

const std::string* find(const HttpFields& fields, std::string_view name) {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const auto& field) { return field.first == name; });
  return found == fields.end() ? nullptr : &found->second;
}

// Calls @p use with each element of the lists that the headers @p name are, until it returns true.
template <typename Use>
bool anyElement(const HttpFields& headers, std::string_view name, char separator, Use use) {
  for (const auto& [field, value] : headers) {
    std::string_view rest = field == name ? std::string_view(value) : std::string_view();
    while (!rest.empty()) {
      const std::size_t end = std::min(rest.find(separator), rest.size());
      if (use(withoutBlanks(rest.substr(0, end)))) {
        return true;
      }
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
  }
  return false;
}

bool lists(const HttpFields& headers, std::string_view name, std::string_view element) {
  return anyElement(headers, name, ',',
                    [&](std::string_view one) { return equalIgnoringCase(one, element); });
}

}  // namespace

const std::string* HttpRequest::header(std::string_view name) const {
  return find(headers, name);
}

const std::string* HttpRequest::parameter(std::string_view name) const {
  return find(query, name);
}

std::optional<std::string> HttpRequest::cookie(std::string_view name) const {
  std::optional<std::string> found;
  anyElement(headers, "cookie", ';', [&](std::string_view pair) {
    const std::size_t equals = pair.find('=');
    if (equals == std::string_view::npos || pair.substr(0, equals) != name) {
      return false;
    }
    found = pair.substr(equals + 1);
    return true;
  });
  return found;
}

bool HttpRequest::wantsWebSocket() const {
  return lists(headers, "upgrade", "websocket");
}

bool HttpRequest::offersSubprotocol(std::string_view name) const {
  return anyElement(headers, "sec-websocket-protocol", ',',
                    [&](std::string_view one) { return one == name; });
}

HttpResponse& HttpResponse::with(std::string name, std::string value) {
  headers.emplace_back(std::move(name), std::move(value));
  return *this;
}

HttpResponse emptyResponse(unsigned status) {
  return {status, {}, {}};
}

HttpResponse textResponse(unsigned status, std::string text) {
  return {status, {{"Content-Type", "text/plain; charset=utf-8"}}, std::move(text)};
}

HttpResponse jsonResponse(unsigned status, std::string json, std::string type) {
  return {status, {{"Content-Type", std::move(type)}}, std::move(json)};
}

}  // namespace runelgw
