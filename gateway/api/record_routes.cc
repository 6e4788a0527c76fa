// SPDX-License-Identifier: Apache-2.0
// Routes about what has happened: history, clauses, events, and the audit log.
#include <charconv>
#include <utility>

#include "gateway/api/call.h"
#include "gateway/api/scope.h"

namespace runelgw {
namespace {

std::uint64_t numberOf(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

// The page and the times of the list; without a value the call is answered.
struct ListWish {
  PageRequest page;
  TimeRange time;
};

std::optional<ListWish> listWish(const CallPtr& call) {
  const std::optional<PageWish> page = call->page();
  if (!page) {
    return std::nullopt;
  }
  const std::optional<std::int64_t> since = call->time("since");
  const std::optional<std::int64_t> until = since ? call->time("until") : std::nullopt;
  if (!until) {
    return std::nullopt;
  }
  ListWish wish;
  wish.page.limit = page->limit;
  wish.page.cursor = numberOf(page->position);
  wish.time = {*since, *until};
  return wish;
}

std::string textParameter(const CallPtr& call, std::string_view name) {
  const std::string* const text = call->parameter(name);
  return text == nullptr ? "" : *text;
}

// Answers with a page of records.
template <typename Record>
Store::Got<Page<Record>> answerPage(const CallPtr& call, Json (*jsonOf)(const Record&)) {
  return [call, jsonOf](runel::Result<Page<Record>> page) {
    if (!page) {
      call->fail(page.error(), ProblemType::storage);
      return;
    }
    Json items = Json::array();
    for (const Record& record : page->items) {
      items.push_back(jsonOf(record));
    }
    call->json(200, {{"items", std::move(items)},
                     {"next", page->next == 0 ? Json(nullptr)
                                              : call->cursorAfter(std::to_string(page->next))}});
  };
}

Json historyJson(const HistoryRecord& record) {
  return {{"id", record.id},
          {"time", timeOf(record.time)},
          {"event", printable(record.event)},
          {"reason", printable(record.reason)}};
}

Json clauseJson(const ClauseRecord& record) {
  return {{"id", record.id}, {"time", timeOf(record.time)}, {"text", bytesOf(record.text)}};
}

Json auditJson(const AuditRecord& record) {
  return {{"id", record.id},
          {"time", timeOf(record.time)},
          {"who", printable(record.who)},
          {"role", printable(record.role)},
          {"from", printable(record.from)},
          {"what", printable(record.what)},
          {"devices", printable(record.devices)},
          {"outcome", printable(record.outcome)},
          {"detail", printable(record.detail)}};
}

bool wantsEvents(const CallPtr& call) {
  const std::string* const accept = call->request().header("accept");
  return accept != nullptr && accept->find("text/event-stream") != std::string::npos;
}

// The last event that the client has seen; false: the call is answered.
bool readLastEvent(const CallPtr& call, EventWish& wish) {
  const std::string* text = call->request().header("last-event-id");
  if (text == nullptr) {
    text = call->parameter("after");
  }
  if (text == nullptr || text->empty()) {
    return true;
  }
  std::uint64_t id = 0;
  const auto end = std::from_chars(text->data(), text->data() + text->size(), id);
  if (end.ec != std::errc() || end.ptr != text->data() + text->size()) {
    call->fail(ProblemType::malformedRequest, "the last event is not the number of an event");
    return false;
  }
  wish.after = id;
  return true;
}

void follow(const CallPtr& call, EventWish wish) {
  wish.who = call->who;
  EventStreams& streams = call->state->streams;
  streams.tick();  // those that have gone do not count
  if (streams.size() >= call->state->settings.mostEventStreams ||
      streams.countOf(call->who.token) >= call->state->settings.mostEventStreamsOfToken) {
    ApiProblem problem{ProblemType::tooMany, "there are too many streams of events"};
    problem.retryAfter = 30;
    call->fail(problem);
    return;
  }
  if (!readLastEvent(call, wish)) {
    return;
  }
  call->handedOver(200);
  streams.add(std::move(wish), call->exchange->startEvents());
}

}  // namespace

void listHistory(const CallPtr& call) {
  const Device* const device = call->device();
  const std::optional<ListWish> wish = device == nullptr ? std::nullopt : listWish(call);
  if (!wish) {
    return;
  }
  HistoryQuery query;
  query.page = wish->page;
  query.time = wish->time;
  query.device = device->id;
  query.event = textParameter(call, "event");
  call->state->parts.store.readHistory(std::move(query), answerPage(call, historyJson));
}

void listClauses(const CallPtr& call) {
  if (!call->mayRun(TaskKind::read)) {
    return;
  }
  const Device* const device = call->device();
  if (device == nullptr) {
    return;
  }
  if (wantsEvents(call)) {
    EventWish wish;
    wish.device = device->id;
    wish.onlyClauses = true;
    follow(call, std::move(wish));
    return;
  }
  const std::optional<ListWish> wish = listWish(call);
  if (!wish) {
    return;
  }
  ClauseQuery query;
  query.page = wish->page;
  query.time = wish->time;
  query.device = device->id;
  call->state->parts.store.readClauses(query, answerPage(call, clauseJson));
}

void sendClause(const CallPtr& call) {
  Fields fields(call->body, {"text"});
  const std::string text = fields.bytes("text");
  if (!fields.ok()) {
    call->fail(fields);
    return;
  }
  if (!call->mayRun(TaskKind::write)) {
    return;
  }
  const Device* const device = call->device();
  if (device == nullptr) {
    return;
  }
  call->detail = text.substr(0, 200);
  const runel::Result<void> sent = call->state->parts.router.sendClause(device->id, text);
  if (!sent) {
    call->fail(sent.error());
    return;
  }
  // The agent does not acknowledge it.
  call->json(202, {{"device", device->name}, {"bytes", text.size()}});
}

void listAudit(const CallPtr& call) {
  const std::optional<ListWish> wish = listWish(call);
  if (!wish) {
    return;
  }
  AuditQuery query;
  query.page = wish->page;
  query.time = wish->time;
  query.who = textParameter(call, "who");
  query.what = textParameter(call, "what");
  query.outcome = textParameter(call, "outcome");
  call->state->parts.store.readAudit(std::move(query), answerPage(call, auditJson));
}

void streamEvents(const CallPtr& call) {
  EventWish wish;
  if (const std::string* const text = call->parameter("query")) {
    runel::Result<Query> query = querySeen(call->state->parts.registry, call->who, *text);
    if (!query) {
      call->fail(ProblemType::invalidQuery, query.error().text());
      return;
    }
    wish.query = *query;
  }
  follow(call, std::move(wish));
}

}  // namespace runelgw
