// SPDX-License-Identifier: Apache-2.0
#include "gateway/cli/token_commands.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "gateway/cli/ask_gateway.h"
#include "gateway/cli/run.h"

namespace runelgw {
namespace {

using Json = nlohmann::json;

constexpr std::size_t kColumns = 8;
using Cells = std::array<std::string, kColumns>;

std::string textIn(const Json& json, const char* key) {
  const auto found = json.find(key);
  return found != json.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::int64_t numberIn(const Json& json, const char* key) {
  const auto found = json.find(key);
  return found != json.end() && found->is_number_integer() ? found->get<std::int64_t>() : 0;
}

std::string listIn(const Json& json, const char* key) {
  std::string list;
  const auto found = json.find(key);
  for (const Json& item : found != json.end() && found->is_array() ? *found : Json::array()) {
    list += (list.empty() ? "" : ",") + (item.is_string() ? item.get<std::string>() : "?");
  }
  return list;
}

std::string timeText(std::int64_t milliseconds) {
  if (milliseconds == 0) {
    return "-";
  }
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  char text[32];
  (void)::gmtime_r(&seconds, &parts);
  return std::strftime(text, sizeof text, "%Y-%m-%dT%H:%MZ", &parts) > 0 ? text : "-";
}

std::string stateOf(const Json& token) {
  if (numberIn(token, "revoked") != 0) {
    return "revoked";
  }
  const auto usable = token.find("usable");
  return usable != token.end() && *usable == true ? "valid" : "expired";
}

std::string orDash(const std::string& text) {
  return text.empty() ? "-" : text;
}

Cells cellsOf(const Json& token) {
  return {std::to_string(numberIn(token, "id")),
          textIn(token, "name"),
          textIn(token, "role"),
          orDash(listIn(token, "groups")),
          orDash(listIn(token, "kinds")),
          stateOf(token),
          timeText(numberIn(token, "expires")),
          timeText(numberIn(token, "last_used"))};
}

// Each column is as wide as its widest cell.
void printTable(const std::vector<Cells>& rows) {
  std::array<std::size_t, kColumns> widths{};
  for (const Cells& row : rows) {
    for (std::size_t i = 0; i < kColumns; ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  for (const Cells& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < kColumns; ++i) {
      line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << "\n";
  }
}

}  // namespace

int createToken(const CommandLine& line, const Settings& settings) {
  const std::unique_ptr<LocalSession> session = openSession(settings);
  if (!session) {
    return kFailed;
  }
  Json request = {{"command", "token-create"}, {"name", line.name},
                  {"role", line.role},         {"groups", line.groups},
                  {"kinds", line.kinds},       {"certificate", line.certificate}};
  if (line.lifetime) {
    request["lifetime_ms"] = *line.lifetime;
  }
  const std::optional<Json> answer = askGateway(*session, request);
  if (!answer) {
    return kFailed;
  }
  const Json token = answer->value("token", Json::object());
  if (line.certificate.empty()) {
    std::cout << textIn(*answer, "secret") << std::endl;
  }
  std::cerr << "runelgw: token " << textIn(token, "name") << " ends at "
            << timeText(numberIn(token, "expires")) << "\n";
  return std::cout ? kDone : fail("standard output: the token was not written; revoke it");
}

int listTokens(const CommandLine& line, const Settings& settings) {
  const std::unique_ptr<LocalSession> session = openSession(settings);
  const std::optional<Json> answer =
      session ? askGateway(*session, {{"command", "token-list"}}) : std::nullopt;
  if (!answer) {
    return kFailed;
  }
  const Json tokens = answer->value("tokens", Json::array());
  if (line.json) {
    std::cout << tokens.dump(2) << "\n";
    return kDone;
  }
  std::vector<Cells> rows = {
      {"ID", "NAME", "ROLE", "GROUPS", "KINDS", "STATE", "EXPIRES", "LAST USED"}};
  std::transform(tokens.begin(), tokens.end(), std::back_inserter(rows), cellsOf);
  printTable(rows);
  return kDone;
}

int revokeToken(const CommandLine& line, const Settings& settings) {
  const std::unique_ptr<LocalSession> session = openSession(settings);
  const std::optional<Json> answer =
      session ? askGateway(*session, {{"command", "token-revoke"}, {"token", line.name}})
              : std::nullopt;
  return answer ? kDone : kFailed;
}

}  // namespace runelgw
