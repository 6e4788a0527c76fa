// SPDX-License-Identifier: Apache-2.0
// Routes that run tasks: on one device, and on many.
#include <charconv>
#include <utility>
#include <variant>

#include "gateway/api/call.h"
#include "gateway/api/scope.h"
#include "gateway/api/task_json.h"

namespace runelgw {
namespace {

// Reads the task and checks whether the client may run it; without a value the call is answered.
std::optional<TaskWish> readWish(const CallPtr& call, const Json& json,
                                 const std::string& pointer) {
  std::variant<TaskWish, ApiProblem> read = readTask(json, pointer, call->state->settings.deadline);
  if (auto* const problem = std::get_if<ApiProblem>(&read)) {
    call->fail(*problem);
    return std::nullopt;
  }
  TaskWish wish = std::move(std::get<TaskWish>(read));
  call->what += ": " + wish.summary;
  call->harmless = !changes(wish.task);
  if (!call->mayRun(wish.kind)) {
    return std::nullopt;
  }
  return wish;
}

const char* const kOperationPath = "/v1/operations/";

Json jsonOf(const OperationRecord& record) {
  return {{"id", std::to_string(record.id)},
          {"state", record.state},
          {"who", printable(record.who)},
          {"query", printable(record.query)},
          {"task", printable(record.kind)},
          {"request", printable(record.request)},
          {"started", timeOf(record.time)},
          {"ended", timeOf(record.ended)},
          {"devices", record.devices},
          {"answered", record.answered},
          {"not_run", record.notRun},
          {"unknown", record.unknown},
          {"results", kOperationPath + std::to_string(record.id) + "/results"}};
}

bool isHers(const CallPtr& call, const OperationRecord& record) {
  return record.who == call->who.label() ||
         (call->who.role == Role::admin && call->who.unlimited());
}

// Calls @p use with the operation that the path names, as it is now, or answers.
void withOperation(const CallPtr& call, void (*use)(const CallPtr&, const OperationRecord&)) {
  const std::string& text = call->value();
  std::uint64_t id = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), id);
  const auto missing = [call] {
    call->fail(ProblemType::notFound, "there is no such operation, or it is one of another token");
  };
  if (end.ec != std::errc() || end.ptr != text.data() + text.size() || id == 0) {
    missing();
    return;
  }
  if (const OperationRecord* const record = call->state->operations.find(id)) {
    isHers(call, *record) ? use(call, *record) : missing();
    return;
  }
  OperationQuery query;
  query.id = id;
  query.page.limit = 1;
  call->state->parts.store.readOperations(
      query, [call, use, missing](runel::Result<Page<OperationRecord>> page) {
        if (!page) {
          call->fail(page.error(), ProblemType::storage);
        } else if (page->items.empty() || !isHers(call, page->items[0])) {
          missing();
        } else {
          use(call, page->items[0]);
        }
      });
}

void answerOperation(const CallPtr& call, const OperationRecord& record) {
  call->json(200, jsonOf(record));
}

void answerStarted(const CallPtr& call, std::uint64_t id) {
  const OperationRecord* const record = call->state->operations.find(id);
  if (record == nullptr) {  // it has ended already, and its end is stored
    call->json(202, {{"id", std::to_string(id)}});
    return;
  }
  HttpResponse response = jsonResponse(202, textOf(jsonOf(*record)));
  call->respond(std::move(response.with("Location", kOperationPath + std::to_string(id))));
}

// Handles the idempotency key. False: the call is answered, or will be.
bool useKey(const CallPtr& call, OperationWish& wish) {
  const std::string* const key = call->request().header("idempotency-key");
  if (key == nullptr) {
    return true;
  }
  const bool good = !key->empty() && key->size() <= 128 &&
                    key->find_first_not_of(
                        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                        "0123456789-._~:+/=\"") == std::string::npos;
  if (!good) {
    call->fail(ProblemType::malformedRequest,
               "the idempotency key must be 1 to 128 letters, digits and signs");
    return false;
  }
  // A key is one of its token: others neither find nor block it.
  wish.key = std::to_string(call->who.token) + "/" + hashOf(*key);
  wish.fingerprint = hashOf(call->request().body);
  const Operations::Former* const former = call->state->operations.findKey(wish.key);
  if (former == nullptr) {
    if (!call->state->operations.hasRoomForKey()) {
      call->fail(ProblemType::tooMany, "too many idempotency keys of the last day");
      return false;
    }
    return true;
  }
  if (former->fingerprint != wish.fingerprint) {
    call->fail(ProblemType::keyReused, "the idempotency key was used with another body");
    return false;
  }
  call->harmless = true;  // it was recorded when it began
  OperationQuery query;
  query.id = former->id;
  query.page.limit = 1;
  if (call->state->operations.find(former->id) != nullptr) {
    answerStarted(call, former->id);
    return false;
  }
  call->state->parts.store.readOperations(query, [call](runel::Result<Page<OperationRecord>> page) {
    if (!page) {
      call->fail(page.error(), ProblemType::storage);
    } else if (page->items.empty()) {
      call->fail(ProblemType::conflict, "the operation of this key begins, or is removed");
    } else {
      HttpResponse response = jsonResponse(202, textOf(jsonOf(page->items[0])));
      call->respond(
          std::move(response.with("Location", kOperationPath + std::to_string(page->items[0].id))));
    }
  });
  return false;
}

// Starts the operation, unless its key was used before.
void begin(const CallPtr& call, OperationWish operation) {
  if (!useKey(call, operation)) {
    return;
  }
  if (!call->state->operations.hasRoom()) {
    ApiProblem problem{ProblemType::tooMany, "too many operations run"};
    problem.retryAfter = 10;
    call->fail(problem);
    return;
  }
  call->detail = std::to_string(operation.devices.size()) + " devices";
  call->body = nullptr;
  const auto id = std::make_shared<std::uint64_t>(0);
  *id = call->state->operations.start(std::move(operation),
                                      [call, id](const std::optional<std::string>& error) {
                                        if (error) {
                                          call->fail(ProblemType::storage, *error);
                                          return;
                                        }
                                        call->detail += ", operation " + std::to_string(*id);
                                        answerStarted(call, *id);
                                      });
}

Json resultJson(const CallPtr& call, const OperationResultRecord& record) {
  const Device* const device = call->state->parts.registry.find(record.device);
  Json json = {{"device", device == nullptr ? Json(nullptr) : Json(device->name)},
               {"outcome", printable(record.outcome)},
               {"reason", record.reason.empty() ? Json(nullptr) : Json(printable(record.reason))},
               {"text", printable(record.text)},
               {"time", timeOf(record.time)},
               {"reply", nullptr}};
  if (call->state->operations.isPending(record.operation, record.device)) {
    json["outcome"] = "pending";
    json["reason"] = nullptr;
    json["text"] = "";
    return json;
  }
  if (record.outcome == outcomeName(Outcome::answered)) {
    json["text"] = "";
    if (std::optional<TaskReply> reply = replyFromNumbers(record.text)) {
      reply->output = record.output;
      json["reply"] = jsonOf(reply);
    }
  }
  return json;
}

void answerResults(const CallPtr& call, const OperationRecord& operation) {
  const std::optional<PageWish> page = call->page();
  if (!page) {
    return;
  }
  ResultQuery query;
  query.operation = operation.id;
  query.page.limit = page->limit;
  query.page.cursor = std::strtoull(page->position.c_str(), nullptr, 10);
  const std::string* const outcome = call->parameter("outcome");
  query.outcome = outcome == nullptr ? "" : *outcome;
  call->state->parts.store.readResults(
      query, [call, filter = query.outcome](runel::Result<Page<OperationResultRecord>> results) {
        if (!results) {
          call->fail(results.error(), ProblemType::storage);
          return;
        }
        Json items = Json::array();
        for (const OperationResultRecord& record : results->items) {
          Json json = resultJson(call, record);
          // The preliminary result of a device that is not done is not its outcome.
          if (filter.empty() || json["outcome"] == filter) {
            items.push_back(std::move(json));
          }
        }
        call->json(
            200, {{"items", std::move(items)},
                  {"next", results->next == 0 ? Json(nullptr)
                                              : call->cursorAfter(std::to_string(results->next))}});
      });
}

void cancel(const CallPtr& call, const OperationRecord& record) {
  const std::uint64_t id = record.id;
  call->devices = record.query;
  call->detail = "operation " + std::to_string(id);
  if (!call->state->operations.cancel(id)) {
    call->fail(ProblemType::conflict, "the operation does not run any more");
    return;
  }
  const OperationRecord* const now = call->state->operations.find(id);
  call->json(202, jsonOf(now == nullptr ? record : *now));
}

}  // namespace

void runTask(const CallPtr& call) {
  call->what = "runTask";
  call->devices = call->value();
  std::optional<TaskWish> wish = readWish(call, call->body, "");
  if (!wish) {
    return;
  }
  const Device* const device = call->device();
  if (device == nullptr) {
    return;
  }
  Call request;
  request.device = device->id;
  request.request = Payload(std::move(wish->record));
  request.deadline = call->state->clocks.steady() + wish->deadline;
  request.label = call->who.label();
  call->body = nullptr;  // its contents may be large
  // The task continues when the client has gone: only so its outcome is known for the audit log.
  call->state->parts.router.send(
      std::move(request), [call, name = device->name](const Answer& answer) {
        call->outcome = outcomeText(answer);
        call->detail = answer.text;
        Json json = jsonOf(name, answer, call->state->settings.outputBytes);
        if (json["reply"].is_object()) {
          call->outcome += ": " + json["reply"]["status"].get<std::string>();
        }
        call->json(200, json);
      });
}

void startOperation(const CallPtr& call) {
  call->what = "startOperation";
  Fields fields(call->body, {"query", "task", "parallel"});
  const std::string text = fields.text("query", kLongestQuery);
  const ApiSettings& settings = call->state->settings;
  const std::int64_t parallel =
      fields.number("parallel", 1, static_cast<std::int64_t>(settings.mostParallel),
                    static_cast<std::int64_t>(settings.parallel));
  if (!fields.ok()) {
    call->fail(fields);
    return;
  }
  call->devices = text;
  std::optional<TaskWish> wish = readWish(call, fields.member("task"), "/task");
  if (!wish) {
    return;
  }
  Registry& registry = call->state->parts.registry;
  const runel::Result<Query> query = querySeen(registry, call->who, text);
  if (!query) {
    call->fail(ProblemType::invalidQuery, query.error().text());
    return;
  }
  OperationWish operation;
  for (const Device* const device : selectSeen(registry, call->who, *query)) {
    operation.devices.push_back(device->id);
  }
  operation.who = call->who.label();
  operation.query = text;
  operation.task = std::move(*wish);
  operation.parallel = static_cast<std::size_t>(parallel);
  operation.permit = call->permit();
  // Results name devices by their number. A number that is not stored would be given to another
  // device after a crash.
  registry.flush(
      [call, operation = std::move(operation)](const std::optional<std::string>& error) mutable {
        if (error) {
          call->fail(ProblemType::storage, *error);
          return;
        }
        begin(call, std::move(operation));
      });
}

void listOperations(const CallPtr& call) {
  const std::optional<PageWish> page = call->page();
  if (!page) {
    return;
  }
  OperationQuery query;
  query.page.limit = page->limit;
  query.page.cursor = std::strtoull(page->position.c_str(), nullptr, 10);
  if (call->who.role != Role::admin || !call->who.unlimited()) {
    query.who = call->who.label();
  }
  if (const std::string* const wanted = call->parameter("state")) {
    query.state = *wanted;
  }
  call->state->parts.store.readOperations(
      query, [call](runel::Result<Page<OperationRecord>> operations) {
        if (!operations) {
          call->fail(operations.error(), ProblemType::storage);
          return;
        }
        Json items = Json::array();
        for (const OperationRecord& record : operations->items) {
          // The counts of one that runs are in memory only.
          const OperationRecord* const now = call->state->operations.find(record.id);
          items.push_back(jsonOf(now == nullptr ? record : *now));
        }
        call->json(200, {{"items", std::move(items)},
                         {"next", operations->next == 0
                                      ? Json(nullptr)
                                      : call->cursorAfter(std::to_string(operations->next))}});
      });
}

void getOperation(const CallPtr& call) {
  withOperation(call, answerOperation);
}

void listResults(const CallPtr& call) {
  withOperation(call, answerResults);
}

void cancelOperation(const CallPtr& call) {
  withOperation(call, cancel);
}

}  // namespace runelgw
