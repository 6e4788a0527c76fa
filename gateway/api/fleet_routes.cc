// SPDX-License-Identifier: Apache-2.0
// Routes about groups, rules for tags, and the list of allowed and denied devices.
#include <algorithm>
#include <utility>

#include "gateway/api/call.h"

namespace runelgw {
namespace {

// Answers with the items behind the cursor. @p items are in the order of their keys.
void answerList(const CallPtr& call, const std::vector<std::pair<std::string, Json>>& items) {
  const std::optional<PageWish> page = call->page();
  if (!page) {
    return;
  }
  Json list = Json::array();
  Json next = nullptr;
  const std::string* last = nullptr;
  for (const auto& [key, json] : items) {
    if (key <= page->position) {
      continue;
    }
    if (list.size() == page->limit) {
      next = call->cursorAfter(*last);
      break;
    }
    list.push_back(json);
    last = &key;
  }
  call->json(200, {{"items", std::move(list)}, {"next", next}});
}

void answerWithTag(const CallPtr& call, unsigned status, const Json& json) {
  HttpResponse response = jsonResponse(status, textOf(json));
  call->respond(std::move(response.with("ETag", etagOf(json))));
}

// A limited client knows only its own groups.
bool maySeeGroup(const Identity& who, const std::string& group) {
  return who.groups.empty() ||
         std::find(who.groups.begin(), who.groups.end(), group) != who.groups.end();
}

Json groupJson(const std::string& name, const Query& query) {
  return {{"name", name}, {"query", query.text()}};
}

Json ruleJson(const TagRuleRecord& rule) {
  return {{"name", rule.name}, {"query", rule.query}, {"tag", rule.tag}, {"value", rule.value}};
}

const Query* groupOf(const CallPtr& call) {
  const Query* const query = call->state->parts.registry.groups().find(call->value());
  if (query == nullptr || !maySeeGroup(call->who, call->value())) {
    call->fail(ProblemType::notFound, "there is no such group");
    return nullptr;
  }
  return query;
}

std::optional<TagRuleRecord> findRule(const CallPtr& call) {
  for (TagRuleRecord& rule : call->state->parts.registry.rules().all()) {
    if (rule.name == call->value()) {
      return std::move(rule);
    }
  }
  return std::nullopt;
}

std::string accessId(const AccessRecord& entry) {
  return toBase64Url(entry.kind + ":" + entry.value);
}

Json accessJson(const AccessRecord& entry) {
  return {
      {"id", accessId(entry)}, {"kind", printable(entry.kind)},    {"value", bytesOf(entry.value)},
      {"allow", entry.allow},  {"created", timeOf(entry.created)}, {"note", printable(entry.note)}};
}

std::optional<AccessRecord> findAccess(const CallPtr& call, const std::string& id) {
  for (AccessRecord& entry : call->state->parts.registry.accessEntries()) {
    if (accessId(entry) == id) {
      return std::move(entry);
    }
  }
  return std::nullopt;
}

}  // namespace

void listGroups(const CallPtr& call) {
  std::vector<std::pair<std::string, Json>> items;
  for (const auto& [name, query] : call->state->parts.registry.groups().all()) {
    if (maySeeGroup(call->who, name)) {
      items.emplace_back(name, groupJson(name, query));
    }
  }
  answerList(call, items);
}

void getGroup(const CallPtr& call) {
  if (const Query* const query = groupOf(call)) {
    answerWithTag(call, 200, groupJson(call->value(), *query));
  }
}

void setGroup(const CallPtr& call) {
  Fields fields(call->body, {"query"});
  const std::string text = fields.text("query", kLongestQuery);
  if (!fields.ok()) {
    call->fail(fields);
    return;
  }
  Registry& registry = call->state->parts.registry;
  const Query* const former = registry.groups().find(call->value());
  call->detail = call->value() + ": " + text;
  if (!call->matches(former == nullptr ? "" : etagOf(groupJson(call->value(), *former)), true)) {
    return;
  }
  const bool isNew = former == nullptr;
  const runel::Result<void> result = registry.setGroup(call->value(), text);
  if (!result) {
    call->fail(result.error(), ProblemType::invalidQuery);
    return;
  }
  answerWithTag(call, isNew ? 201 : 200,
                groupJson(call->value(), *registry.groups().find(call->value())));
}

void removeGroup(const CallPtr& call) {
  call->detail = call->value();
  const Query* const query = groupOf(call);
  if (query == nullptr || !call->matches(etagOf(groupJson(call->value(), *query)), false)) {
    return;
  }
  // A token that is limited to the group would see nothing, or something else when the name is
  // used again.
  for (const TokenRecord* const token : call->state->parts.auth.tokens()) {
    if (isUsable(*token, call->state->clocks.wall()) &&
        std::find(token->groups.begin(), token->groups.end(), call->value()) !=
            token->groups.end()) {
      call->fail(ProblemType::conflict, "the token \"" + token->name + "\" is limited to it",
                 "revoke the token first");
      return;
    }
  }
  const runel::Result<void> result = call->state->parts.registry.removeGroup(call->value());
  if (result) {
    call->noContent();
  } else {
    call->fail(result.error());
  }
}

void listTagRules(const CallPtr& call) {
  std::vector<std::pair<std::string, Json>> items;
  for (const TagRuleRecord& rule : call->state->parts.registry.rules().all()) {
    items.emplace_back(rule.name, ruleJson(rule));
  }
  std::sort(items.begin(), items.end());
  answerList(call, items);
}

void getTagRule(const CallPtr& call) {
  const std::optional<TagRuleRecord> rule = findRule(call);
  if (rule) {
    answerWithTag(call, 200, ruleJson(*rule));
  } else {
    call->fail(ProblemType::notFound, "there is no such rule");
  }
}

void setTagRule(const CallPtr& call) {
  Fields fields(call->body, {"query", "tag", "value"});
  TagRuleRecord rule;
  rule.name = call->value();
  rule.query = fields.text("query", kLongestQuery);
  rule.tag = fields.text("tag", 64);
  rule.value = fields.text("value", 256, "");
  if (!fields.ok()) {
    call->fail(fields);
    return;
  }
  const std::optional<TagRuleRecord> former = findRule(call);
  call->detail = rule.name + ": " + rule.tag + "=" + rule.value + " for " + rule.query;
  if (!call->matches(former ? etagOf(ruleJson(*former)) : "", true)) {
    return;
  }
  const runel::Result<void> result = call->state->parts.registry.setRule(rule);
  if (!result) {
    call->fail(result.error(), ProblemType::invalidQuery);
    return;
  }
  answerWithTag(call, former ? 200 : 201, ruleJson(rule));
}

void removeTagRule(const CallPtr& call) {
  call->detail = call->value();
  const std::optional<TagRuleRecord> rule = findRule(call);
  if (!rule) {
    call->fail(ProblemType::notFound, "there is no such rule");
    return;
  }
  if (!call->matches(etagOf(ruleJson(*rule)), false)) {
    return;
  }
  const runel::Result<void> result = call->state->parts.registry.removeRule(call->value());
  if (result) {
    call->noContent();
  } else {
    call->fail(result.error());
  }
}

void listAccess(const CallPtr& call) {
  std::vector<std::pair<std::string, Json>> items;
  for (const AccessRecord& entry : call->state->parts.registry.accessEntries()) {
    items.emplace_back(accessId(entry), accessJson(entry));
  }
  std::sort(items.begin(), items.end());
  answerList(call, items);
}

void setAccess(const CallPtr& call) {
  Fields fields(call->body, {"kind", "value", "allow", "note"});
  AccessRecord entry;
  entry.kind = fields.text("kind", 32);
  entry.value = fields.bytes("value");
  entry.note = fields.text("note", 256, "");
  if (!fields.has("allow")) {
    fields.fail("allow", "is missing");
  }
  entry.allow = fields.flag("allow", false);
  entry.created = call->state->clocks.wall();
  if (!fields.ok()) {
    call->fail(fields);
    return;
  }
  const std::string id = accessId(entry);
  const bool isNew = !findAccess(call, id);
  call->detail = std::string(entry.allow ? "allow " : "deny ") + entry.kind + " " + entry.value;
  const runel::Result<void> result = call->state->parts.registry.setAccess(entry);
  if (!result) {
    call->fail(result.error(), ProblemType::malformedRequest);
    return;
  }
  HttpResponse response = jsonResponse(isNew ? 201 : 200, textOf(accessJson(entry)));
  call->respond(std::move(response.with("Location", "/v1/access/" + id)));
}

void removeAccess(const CallPtr& call) {
  const std::optional<AccessRecord> entry = findAccess(call, call->value());
  if (!entry) {
    call->fail(ProblemType::notFound, "there is no such entry");
    return;
  }
  call->detail = entry->kind + " " + entry->value;
  const runel::Result<void> result =
      call->state->parts.registry.removeAccess(entry->kind, entry->value);
  if (result) {
    call->noContent();
  } else {
    call->fail(result.error());
  }
}

}  // namespace runelgw
