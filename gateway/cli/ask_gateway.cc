// SPDX-License-Identifier: Apache-2.0
#include "gateway/cli/ask_gateway.h"

#include <iostream>
#include <utility>

#include <nlohmann/json.hpp>

#include "gateway/cli/run.h"

namespace runelgw {

int fail(const std::string& text) {
  std::cerr << "runelgw: " << text << "\n";
  return kFailed;
}

std::unique_ptr<LocalSession> openSession(const Settings& settings) {
  runel::Result<std::unique_ptr<LocalSession>> session = LocalSession::open(settings);
  if (!session) {
    fail(session.error().text());
    return nullptr;
  }
  return *std::move(session);
}

std::optional<nlohmann::json> askGateway(LocalSession& session, const nlohmann::json& request,
                                         zell::UniqueFd* file) {
  using Json = nlohmann::json;
  // Arguments may be any bytes.
  runel::Result<ControlAnswer> answer =
      session.ask(request.dump(-1, ' ', false, Json::error_handler_t::replace));
  if (!answer) {
    fail(answer.error().text());
    return std::nullopt;
  }
  Json content = Json::parse(answer->line, nullptr, false);
  if (!content.is_object()) {
    fail("malformed answer on the control socket");
    return std::nullopt;
  }
  const auto error = content.find("error");
  if (error != content.end() && error->is_string()) {
    fail(error->get<std::string>());
    return std::nullopt;
  }
  if (file != nullptr) {
    *file = std::move(answer->file);
  }
  return content;
}

}  // namespace runelgw
