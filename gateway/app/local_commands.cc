// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/local_commands.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace runelgw {
namespace {

using Json = nlohmann::json;

constexpr char kRole[] = "local";

std::string shownJson(const Json& json) {
  // Names of groups come from callers: never throw for their bytes.
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

ControlAnswer failure(const std::string& why) {
  return {shownJson({{"error", why}}), {}};
}

std::string textIn(const Json& json, const char* key) {
  const auto found = json.find(key);
  return found != json.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::vector<std::string> listIn(const Json& json, const char* key) {
  std::vector<std::string> list;
  const auto found = json.find(key);
  for (const Json& item : found != json.end() && found->is_array() ? *found : Json::array()) {
    if (item.is_string()) {
      list.push_back(item.get<std::string>());
    }
  }
  return list;
}

Json shownToken(const TokenRecord& record, std::int64_t now) {
  return {{"id", record.id},
          {"name", record.name},
          {"role", record.role},
          {"groups", record.groups},
          {"kinds", record.kinds},
          {"certificate", certificateOf(record)},
          {"created", record.created},
          {"expires", record.expires},
          {"last_used", record.lastUsed},
          {"revoked", record.revoked},
          {"usable", isUsable(record, now)}};
}

std::string systemError(const std::string& path, int number) {
  return path + ": " + std::strerror(number);
}

}  // namespace

struct LocalCommands::Request {
  std::string command;
  Json content;
  std::string who;
  ControlServer::Answer answer;
};

struct LocalCommands::Row {
  const char* command;
  void (LocalCommands::*run)(const Request& request);
};

LocalCommands::LocalCommands(Auth& auth, Store& store, Surroundings surroundings)
    : auth_(auth),
      store_(store),
      surroundings_(std::move(surroundings)),
      alive_(std::make_shared<bool>(true)) {}

LocalCommands::~LocalCommands() = default;

void LocalCommands::run(const std::string& line, unsigned uid,
                        const ControlServer::Answer& answer) {
  static constexpr Row kRows[] = {
      {"token-create", &LocalCommands::createToken},
      {"token-list", &LocalCommands::listTokens},
      {"token-revoke", &LocalCommands::revokeToken},
      {"backup", &LocalCommands::backup},
      {"restore", &LocalCommands::restore},
      {"restore-commit", &LocalCommands::commitRestore},
  };
  Request request{{}, Json::parse(line, nullptr, false), "uid " + std::to_string(uid), answer};
  request.command = request.content.is_object() ? textIn(request.content, "command") : "";
  const auto row = std::find_if(std::begin(kRows), std::end(kRows), [&request](const Row& one) {
    return request.command == one.command;
  });
  if (row == std::end(kRows)) {
    answer(failure("the gateway does not know this command: it may be of another version"));
    return;
  }
  (this->*row->run)(request);
}

void LocalCommands::createToken(const Request& request) {
  TokenWish wish;
  wish.name = textIn(request.content, "name");
  const std::optional<Role> role = findRole(textIn(request.content, "role"));
  if (!role) {
    failed(request, wish.name, "a role is \"viewer\", \"operator\" or \"admin\"");
    return;
  }
  wish.role = *role;
  wish.groups = listIn(request.content, "groups");
  wish.kinds = listIn(request.content, "kinds");
  wish.certificate = textIn(request.content, "certificate");
  const auto lifetime = request.content.find("lifetime_ms");
  if (lifetime != request.content.end() && lifetime->is_number_integer()) {
    wish.lifetime = lifetime->get<std::int64_t>();
  }
  auth_.create(wish, [this, request, name = wish.name](runel::Result<NewToken> token) {
    if (!token) {
      failed(request, name, token.error().text());
      return;
    }
    done(request, token->record.name + " (" + token->record.role + ")",
         {{"token", shownToken(token->record, token->record.created)}, {"secret", token->secret}});
  });
}

void LocalCommands::listTokens(const Request& request) {
  const std::int64_t now = systemClocks().wall();
  Json tokens = Json::array();
  for (const TokenRecord* token : auth_.tokens()) {
    tokens.push_back(shownToken(*token, now));
  }
  request.answer({shownJson({{"tokens", tokens}}), {}});
}

void LocalCommands::revokeToken(const Request& request) {
  const std::string wanted = textIn(request.content, "token");
  const std::int64_t now = systemClocks().wall();
  const TokenRecord* found = nullptr;
  for (const TokenRecord* token : auth_.tokens()) {
    // A name may have been given again after the token had ended.
    if (std::to_string(token->id) == wanted || (token->name == wanted && isUsable(*token, now))) {
      found = token;
    }
  }
  if (found == nullptr) {
    failed(request, wanted, "there is no token '" + wanted + "' that can be used");
    return;
  }
  const std::uint64_t id = found->id;
  const std::string name = found->name;
  const bool known =
      auth_.revoke(id, [this, request, id, name](const std::optional<std::string>& error) {
        const TokenRecord* token = auth_.find(id);
        if (error || token == nullptr) {
          failed(request, name, error.value_or("the token was removed meanwhile"));
        } else {
          done(request, name, {{"token", shownToken(*token, systemClocks().wall())}});
        }
      });
  if (!known) {
    failed(request, name, "there is no token '" + wanted + "' that can be used");
  }
}

void LocalCommands::backup(const Request& request) {
  const std::string path = surroundings_.stateDirectory + "/backup.part";
  (void)::unlink(path.c_str());
  store_.backup(path, [this, request, path](const std::optional<std::string>& error) {
    zell::UniqueFd file(error ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    const int number = errno;
    // The caller has the descriptor; the name is not needed.
    (void)::unlink(path.c_str());
    if (!file.valid()) {
      failed(request, "", error ? *error : systemError(path, number));
      return;
    }
    note(request, "done", "");
    request.answer({"{}", std::move(file)});
  });
}

std::string LocalCommands::restorePath() const {
  return surroundings_.stateDirectory + "/restore.part";
}

void LocalCommands::restore(const Request& request) {
  if (!surroundings_.replaceDatabase) {
    failed(request, "", "only a SQLite database can be restored: use the tools of PostgreSQL");
    return;
  }
  const std::string path = restorePath();
  (void)::unlink(path.c_str());
  zell::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file.valid()) {
    failed(request, "", systemError(path, errno));
    return;
  }
  request.answer({"{}", std::move(file)});
}

void LocalCommands::commitRestore(const Request& request) {
  if (!surroundings_.replaceDatabase) {
    failed(request, "", "only a SQLite database can be restored");
    return;
  }
  const runel::Result<void> replaced = surroundings_.replaceDatabase(restorePath());
  (void)::unlink(restorePath().c_str());
  if (!replaced) {
    failed(request, "", replaced.error().text());
    return;
  }
  // The record of it belongs to the database that was there before: the log has it.
  surroundings_.log("restore by " + request.who + ": done");
  request.answer({"{}", {}});
}

void LocalCommands::done(const Request& request, const std::string& detail, const Json& answer) {
  note(request, "done", detail);
  request.answer({shownJson(answer), {}});
}

void LocalCommands::failed(const Request& request, const std::string& detail,
                           const std::string& why) {
  note(request, why, detail);
  request.answer(failure(why));
}

void LocalCommands::note(const Request& request, const std::string& outcome,
                         const std::string& detail) {
  AuditRecord record;
  record.time = systemClocks().wall();
  record.who = request.who;
  record.role = kRole;
  record.from = kRole;
  record.what = request.command;
  record.outcome = outcome == "done" ? outcome : "failed";
  record.detail = outcome == "done" ? detail : detail + (detail.empty() ? "" : ": ") + outcome;
  surroundings_.log(record.what + " by " + record.who + ": " + record.outcome +
                    (record.detail.empty() ? "" : ": " + record.detail));
  store_.write({Append<AuditRecord>{record}}, [alive = alive_, this](const auto& error) {
    if (error && *alive) {
      surroundings_.log("the record of a change could not be stored: " + *error);
    }
  });
}

}  // namespace runelgw
