// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/response.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include <boost/beast/http/status.hpp>

#include "gateway/http/head_check.h"

namespace runelgw {
namespace {

bool has(const HttpFields& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& field) { return equalIgnoringCase(field.first, name); });
}

void add(std::string& head, std::string_view name, std::string_view value) {
  head.append(name).append(": ").append(value).append("\r\n");
}

// These the server decides.
bool isFraming(std::string_view name) {
  return equalIgnoringCase(name, "content-length") ||
         equalIgnoringCase(name, "transfer-encoding") || equalIgnoringCase(name, "connection");
}

bool isWellFormed(const std::pair<std::string, std::string>& field) {
  const auto& [name, value] = field;
  return !name.empty() && std::all_of(name.begin(), name.end(), isTokenByte) &&
         std::all_of(value.begin(), value.end(), isValueByte) && !isFraming(name);
}

std::string dateText(std::time_t now) {
  static std::time_t last = 0;
  static std::string text;
  if (now != last || text.empty()) {
    std::tm parts{};
    char buffer[40] = {};
    gmtime_r(&now, &parts);
    // The daemon sets no locale, so the names are English.
    const std::size_t size =
        std::strftime(buffer, sizeof buffer, "%a, %d %b %Y %H:%M:%S GMT", &parts);
    text.assign(buffer, size);
    last = now;
  }
  return text;
}

void addSafety(std::string& head, const HttpResponse& response, bool tls) {
  const std::pair<std::string_view, std::string_view> kDefaults[] = {
      {"X-Content-Type-Options", "nosniff"},
      {"Referrer-Policy", "no-referrer"},
      {"Cache-Control", "no-store"},
  };
  for (const auto& [name, value] : kDefaults) {
    if (!has(response.headers, name)) {
      add(head, name, value);
    }
  }
  if (tls && !has(response.headers, "Strict-Transport-Security")) {
    add(head, "Strict-Transport-Security", "max-age=31536000");
  }
}

void addLines(std::string& text, std::string_view field, std::string_view value) {
  while (true) {
    const std::size_t end = std::min(value.find_first_of("\r\n"), value.size());
    text.append(field).append(": ").append(value.substr(0, end)).append("\n");
    if (end == value.size()) {
      return;
    }
    value.remove_prefix(value.substr(end, 2) == "\r\n" ? end + 2 : end + 1);
  }
}

std::string_view firstLine(std::string_view text) {
  return text.substr(0, text.find_first_of(std::string_view("\r\n\0", 3)));
}

}  // namespace

std::string_view phraseOf(unsigned status) {
  const auto phrase =
      boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(status));
  return {phrase.data(), phrase.size()};
}

bool isBodiless(unsigned status) {
  return status < 200 || status == 204 || status == 304;
}

std::optional<std::string> headOf(const HttpResponse& response, const ResponseFrame& frame) {
  if (response.status < 100 || response.status > 999 ||
      !std::all_of(response.headers.begin(), response.headers.end(), isWellFormed)) {
    return std::nullopt;
  }
  std::string head;
  head.reserve(400);
  head.append(frame.http11 ? "HTTP/1.1 " : "HTTP/1.0 ").append(std::to_string(response.status));
  head.append(" ").append(phraseOf(response.status)).append("\r\n");
  add(head, "Date", dateText(frame.now));
  if (!frame.keepAlive) {
    add(head, "Connection", "close");
  } else if (!frame.http11) {
    add(head, "Connection", "keep-alive");
  }
  if (frame.length && !isBodiless(response.status)) {
    add(head, "Content-Length", std::to_string(*frame.length));
  }
  addSafety(head, response, frame.tls);
  for (const auto& [name, value] : response.headers) {
    add(head, name, value);
  }
  return head += "\r\n";
}

HttpResponse responseOf(const HttpRefusal& refusal) {
  std::string text;
  for (const char byte : refusal.text) {
    text += byte == '"' || byte == '\\' ? std::string{'\\', byte} : std::string(1, byte);
  }
  return jsonResponse(
      refusal.status,
      "{\"type\":\"about:blank\",\"title\":\"" + std::string(phraseOf(refusal.status)) +
          "\",\"status\":" + std::to_string(refusal.status) + ",\"detail\":\"" + text + "\"}\n",
      "application/problem+json");
}

std::string eventText(const std::string& id, const std::string& event, const std::string& data) {
  std::string text;
  text.reserve(id.size() + event.size() + data.size() + 32);
  if (!id.empty()) {
    text.append("id: ").append(firstLine(id)).append("\n");
  }
  if (!event.empty()) {
    text.append("event: ").append(firstLine(event)).append("\n");
  }
  addLines(text, "data", data);
  return text += "\n";
}

}  // namespace runelgw
