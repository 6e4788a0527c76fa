// SPDX-License-Identifier: Apache-2.0
// Routes about tokens.
#include <cerrno>
#include <charconv>
#include <utility>

#include "gateway/api/call.h"

namespace runelgw {
namespace {

constexpr std::int64_t kSecond = 1000;

Json jsonOf(const TokenRecord& token, std::int64_t now) {
  const std::string certificate = certificateOf(token);
  return {{"id", std::to_string(token.id)},
          {"name", token.name},
          {"role", nameOf(roleOf(token))},
          {"groups", token.groups},
          {"kinds", kindsOf(token).names()},
          {"certificate", certificate.empty() ? Json(nullptr) : Json(printable(certificate))},
          {"created", timeOf(token.created)},
          {"expires", timeOf(token.expires)},
          {"last_used", timeOf(token.lastUsed)},
          {"revoked", timeOf(token.revoked)},
          {"usable", isUsable(token, now)}};
}

const TokenRecord* findToken(const CallPtr& call) {
  const std::string& text = call->value();
  std::uint64_t id = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), id);
  const bool number = end.ec == std::errc() && end.ptr == text.data() + text.size();
  const TokenRecord* const token = number ? call->state->parts.auth.find(id) : nullptr;
  if (token == nullptr) {
    call->fail(ProblemType::notFound, "there is no such token");
  }
  return token;
}

// Reads the body; false: the call is answered.
bool readWish(const CallPtr& call, TokenWish& wish) {
  Fields fields(call->body, {"name", "role", "groups", "kinds", "lifetime_s", "certificate"});
  wish.name = fields.text("name", 64);
  const std::optional<Role> role = findRole(fields.text("role", 16));
  wish.groups = fields.texts("groups", 100);
  wish.kinds = fields.texts("kinds", kTaskKinds);
  wish.lifetime =
      fields.number("lifetime_s", 1, kMaxTokenLifetime / kSecond, kDefaultTokenLifetime / kSecond) *
      kSecond;
  wish.certificate = fields.text("certificate", 255, "");
  if (fields.ok() && !role) {
    fields.fail("role", "must be viewer, operator or admin");
  }
  for (const std::string& group : wish.groups) {
    if (call->state->parts.registry.groups().find(group) == nullptr) {
      fields.fail("groups", "has a group that does not exist");
    }
  }
  // Without an item the token would have all.
  for (const char* const name : {"groups", "kinds"}) {
    if (fields.has(name) && fields.member(name).is_array() && fields.member(name).empty()) {
      fields.fail(name, "must not be empty; leave it out for no limit");
    }
  }
  if (!fields.ok()) {
    call->fail(fields);
    return false;
  }
  wish.role = *role;
  return true;
}

}  // namespace

void listTokens(const CallPtr& call) {
  const std::optional<PageWish> page = call->page();
  if (!page) {
    return;
  }
  const std::uint64_t position = std::strtoull(page->position.c_str(), nullptr, 10);
  Json items = Json::array();
  Json next = nullptr;
  std::uint64_t last = 0;
  for (const TokenRecord* const token : call->state->parts.auth.tokens()) {
    if (token->id <= position) {
      continue;
    }
    if (items.size() == page->limit) {
      next = call->cursorAfter(std::to_string(last));
      break;
    }
    items.push_back(jsonOf(*token, call->state->clocks.wall()));
    last = token->id;
  }
  call->json(200, {{"items", std::move(items)}, {"next", next}});
}

void createToken(const CallPtr& call) {
  TokenWish wish;
  if (!readWish(call, wish)) {
    return;
  }
  call->detail = wish.name + ", " + nameOf(wish.role);
  call->state->parts.auth.create(wish, [call](runel::Result<NewToken> token) {
    if (!token) {
      const int number = token.error().number();
      call->fail(token.error(), number == EEXIST   ? ProblemType::conflict
                                : number == EINVAL ? ProblemType::malformedRequest
                                                   : ProblemType::storage);
      return;
    }
    call->detail += ", token " + std::to_string(token->record.id);
    Json json = jsonOf(token->record, call->state->clocks.wall());
    json["secret"] = token->secret.empty() ? Json(nullptr) : Json(token->secret);
    HttpResponse response = jsonResponse(201, textOf(json));
    call->respond(
        std::move(response.with("Location", "/v1/tokens/" + std::to_string(token->record.id))));
  });
}

void getToken(const CallPtr& call) {
  if (const TokenRecord* const token = findToken(call)) {
    call->json(200, jsonOf(*token, call->state->clocks.wall()));
  }
}

void revokeToken(const CallPtr& call) {
  const TokenRecord* const token = findToken(call);
  if (token == nullptr) {
    return;
  }
  call->detail = token->name;
  const bool found =
      call->state->parts.auth.revoke(token->id, [call](const std::optional<std::string>& error) {
        if (error) {
          call->fail(ProblemType::storage,
                     "the token is revoked until the gateway restarts: " + *error,
                     "try again, so that it is stored");
          return;
        }
        call->noContent();
      });
  if (!found) {
    call->fail(ProblemType::notFound, "there is no such token");
  }
}

}  // namespace runelgw
