// SPDX-License-Identifier: Apache-2.0
#include <map>
#include <set>
#include <string>

#include "gateway/api/routes.h"
#include "unit/gateway/api/fixture.h"

namespace runelgw {
namespace {

class OperationsTest : public ApiTest {
 protected:
  void connectMany(int count) {
    for (int device = 1; device <= count; ++device) {
      connect("gw-" + std::to_string(device));
    }
  }

  static Json body(const std::string& query = "@all", int parallel = 100) {
    return {{"query", query}, {"parallel", parallel}, {"task", {{"task", "reboot"}}}};
  }

  // The id of a new operation.
  std::string start(const Json& wish, const std::string& token = "", const Headers& headers = {}) {
    const Got answer =
        call("POST", "/v1/operations", token.empty() ? admin_ : token, wish, headers);
    EXPECT_EQ(answer.status, 202U) << answer.text;
    return answer.json.value("id", "");
  }

  Json operation(const std::string& id) { return get("/v1/operations/" + id).json; }

  // Outcomes by device, as the API tells them.
  std::map<std::string, std::string> results(const std::string& id) {
    std::map<std::string, std::string> outcomes;
    std::string next;
    do {
      const Got page = get("/v1/operations/" + id + "/results?limit=3" +
                           (next.empty() ? "" : "&cursor=" + next));
      EXPECT_EQ(page.status, 200U) << page.text;
      for (const Json& item : page.json["items"]) {
        EXPECT_TRUE(outcomes.emplace(item["device"], item["outcome"]).second) << item;
      }
      next = page.json["next"].is_null() ? "" : page.json["next"].get<std::string>();
    } while (!next.empty());
    return outcomes;
  }

  // What the database says, by outcome.
  std::map<std::string, int> stored() {
    std::map<std::string, int> counts;
    for (const auto& [key, result] : store_.results) {
      ++counts[result.outcome];
    }
    return counts;
  }

  void answerAll(const std::string& output = "") {
    while (!router_.sent.empty()) {
      router_.answer(answered(output));
      store_.run();
    }
  }
};

TEST_F(OperationsTest, RunsOnEachDeviceOnceAndKeepsTheResults) {
  connectMany(7);
  const std::string id = start(body());
  ASSERT_EQ(router_.sent.size(), 7U);
  std::set<DeviceId> devices;
  for (const FakeRouter::Sent& sent : router_.sent) {
    EXPECT_TRUE(devices.insert(sent.call.device).second);
    EXPECT_EQ(sent.call.request.bytes(), "SlaveTask 1 6:reboot 0 0: 0 0 0 0 0");
    EXPECT_EQ(sent.call.label, "token admin");
  }
  EXPECT_EQ(operation(id)["state"], "running");
  answerAll("done \xff");
  const Json now = operation(id);
  EXPECT_EQ(now["state"], "done");
  EXPECT_EQ(now["devices"], 7);
  EXPECT_EQ(now["answered"], 7);
  EXPECT_EQ(results(id).size(), 7U);
  const Got page = get("/v1/operations/" + id + "/results?limit=1");
  EXPECT_EQ(page.json["items"][0]["reply"]["status"], "success");
  EXPECT_EQ(page.json["items"][0]["reply"]["output"]["base64"], "ZG9uZSD/");
}

TEST_F(OperationsTest, AtMostSoManyDevicesAreInFlight) {
  connectMany(10);
  const std::string id = start(body("@all", 3));
  std::size_t rounds = 0;
  while (!router_.sent.empty() && ++rounds <= 10) {
    EXPECT_LE(router_.sent.size(), 3U);
    router_.answer(answered(""));
    store_.run();
  }
  EXPECT_EQ(rounds, 10U);
  EXPECT_EQ(operation(id)["answered"], 10);
}

TEST_F(OperationsTest, NothingIsSentBeforeItIsStored) {
  connectMany(3);
  auto exchange = std::make_shared<FakeExchange>();
  exchange->asked.method = "POST";
  exchange->asked.path = exchange->asked.target = "/v1/operations";
  exchange->asked.headers = {{"authorization", "Bearer " + admin_},
                             {"content-type", "application/json"}};
  exchange->asked.body = body().dump();
  api_->handle(exchange);
  // First the devices are stored, whose numbers the results have.
  EXPECT_TRUE(store_.operations.empty());
  while (!store_.idle() && store_.operations.empty()) {
    store_.runOne();
  }
  // The record and "not run" for each device are on their way.
  EXPECT_FALSE(exchange->answer);
  EXPECT_EQ(stored(), (std::map<std::string, int>{{"not run", 3}}));
  EXPECT_TRUE(router_.sent.empty());
  while (!exchange->answer) {
    store_.runOne();
  }
  // The operation has begun. Its devices count as unknown before a byte may reach them.
  EXPECT_EQ(stored(), (std::map<std::string, int>{{"unknown", 3}}));
  EXPECT_TRUE(router_.sent.empty());
  store_.run();
  EXPECT_EQ(router_.sent.size(), 3U);
  answerAll();
  EXPECT_EQ(stored(), (std::map<std::string, int>{{"answered", 3}}));
  got(exchange);
}

TEST_F(OperationsTest, DevicesAreStoredBeforeTheirResults) {
  connectMany(2);
  start(body());
  std::set<DeviceId> known;
  std::size_t results = 0;
  for (const std::vector<Change>& changes : store_.writes) {
    for (const Change& change : changes) {
      if (const auto* const device = std::get_if<Save<DeviceRecord>>(&change)) {
        known.insert(device->record.id);
      } else if (const auto* const result = std::get_if<Save<OperationResultRecord>>(&change)) {
        EXPECT_EQ(known.count(result->record.device), 1U) << result->record.device;
        ++results;
      }
    }
  }
  EXPECT_EQ(known.size(), 2U);
  EXPECT_GE(results, 4U);
}

TEST_F(OperationsTest, AfterARestartTheOutcomesAreExact) {
  connectMany(10);
  const std::string id = start(body("@all", 4));
  router_.answer(answered(""));
  store_.run();
  router_.answer({Outcome::notRun, Reason::offline, "not connected", {}});
  store_.run();
  // Two are done, four are on their way, and four were not reached.
  EXPECT_EQ(router_.sent.size(), 4U);
  router_.sent.clear();
  restart();
  connectMany(10);
  const Json now = operation(id);
  EXPECT_EQ(now["state"], "interrupted");
  EXPECT_EQ(now["answered"], 1);
  EXPECT_EQ(now["unknown"], 4);
  EXPECT_EQ(now["not_run"], 5);
  EXPECT_EQ(now["devices"], 10);
  EXPECT_EQ(store_.operations.begin()->second.state, "interrupted");
  EXPECT_EQ(stored(),
            (std::map<std::string, int>{{"answered", 1}, {"unknown", 4}, {"not run", 5}}));
  EXPECT_TRUE(router_.sent.empty());
  EXPECT_NE(start(body()), id);
}

TEST_F(OperationsTest, AResultThatIsNotFinalIsPending) {
  connectMany(3);
  const std::string id = start(body("@all", 1));
  router_.answer(answered(""));
  store_.run();
  const auto outcomes = results(id);
  std::map<std::string, int> counts;
  for (const auto& [device, outcome] : outcomes) {
    ++counts[outcome];
  }
  EXPECT_EQ(counts, (std::map<std::string, int>{{"answered", 1}, {"pending", 2}}));
  EXPECT_EQ(get("/v1/operations/" + id + "/results?outcome=unknown").json["items"].size(), 0U);
  EXPECT_EQ(get("/v1/operations/" + id + "/results?outcome=answered").json["items"].size(), 1U);
  answerAll();
}

TEST_F(OperationsTest, ACancelledOneReachesNoFurtherDevices) {
  connectMany(5);
  const std::string id = start(body("@all", 2));
  EXPECT_EQ(post("/v1/operations/" + id + "/cancel", nullptr).status, 202U);
  EXPECT_EQ(operation(id)["state"], "cancelling");
  EXPECT_EQ(router_.sent.size(), 2U);
  answerAll();
  const Json now = operation(id);
  EXPECT_EQ(now["state"], "cancelled");
  EXPECT_EQ(now["answered"], 2);
  EXPECT_EQ(now["not_run"], 3);
  EXPECT_EQ(stored(), (std::map<std::string, int>{{"answered", 2}, {"not run", 3}}));
  EXPECT_EQ(get("/v1/operations/" + id + "/results?outcome=not run").json["items"][0]["reason"],
            "cancelled");
  EXPECT_EQ(post("/v1/operations/" + id + "/cancel", nullptr).status, 409U);
  EXPECT_EQ(post("/v1/operations/999/cancel", nullptr).status, 404U);
}

TEST_F(OperationsTest, AStoppingGatewayEndsItExactly) {
  connectMany(4);
  const std::string id = start(body("@all", 1));
  api_->stop();
  router_.answer({Outcome::unknown, Reason::stopping, "the gateway is stopping", {}});
  store_.run();
  EXPECT_EQ(operation(id)["state"], "interrupted");
  EXPECT_EQ(stored(), (std::map<std::string, int>{{"unknown", 1}, {"not run", 3}}));
  EXPECT_TRUE(router_.sent.empty());
  EXPECT_EQ(api_->runningOperations(), 0U);
}

TEST_F(OperationsTest, RightsAreAskedAgainForEachDevice) {
  makeGroupA();
  connectMany(4);
  for (const char* const name : {"gw-1", "gw-2", "gw-3"}) {
    ASSERT_TRUE(registry_->setTag(registry_->find(name)->id, "site", "a"));
  }
  const std::string token = makeToken("ci", Role::deviceOperator, {"a"});
  const std::string id = start(body("@all", 1), token);
  EXPECT_EQ(operation(id)["devices"], 3);
  ASSERT_TRUE(registry_->removeTag(registry_->find("gw-2")->id, "site"));
  router_.answer(answered(""));
  store_.run();
  ASSERT_TRUE(auth_->revoke(4, [](const std::optional<std::string>&) {}));
  answerAll();
  const Json now = operation(id);
  EXPECT_EQ(now["answered"], 2);
  EXPECT_EQ(now["not_run"], 1);
  const std::string second = start(body("@all", 1));
  EXPECT_EQ(operation(second)["devices"], 4);
  answerAll();
}

TEST_F(OperationsTest, ARevokedTokenStopsItsOperations) {
  connectMany(4);
  const std::string id = start(body("@all", 1), operator_);
  ASSERT_TRUE(auth_->revoke(2, [](const std::optional<std::string>&) {}));
  answerAll();
  const Json now = operation(id);
  EXPECT_EQ(now["answered"], 1);
  EXPECT_EQ(now["not_run"], 3);
  EXPECT_EQ(store_.results.rbegin()->second.reason, "refused");
}

TEST_F(OperationsTest, AnIdempotencyKeyStartsItOnceAlsoAfterARestart) {
  connectMany(2);
  const Headers key = {{"idempotency-key", "\"a-key\""}};
  const std::string id = start(body(), "", key);
  EXPECT_EQ(start(body(), "", key), id);
  EXPECT_EQ(router_.sent.size(), 2U);
  answerAll();
  EXPECT_EQ(start(body(), "", key), id);
  EXPECT_EQ(call("POST", "/v1/operations", admin_, body("gw-1"), key).problem(), "key-reused");
  EXPECT_NE(start(body(), operator_, key), id);
  router_.sent.clear();
  EXPECT_NE(store_.settings.lower_bound("idempotency/"), store_.settings.end());
  restart();
  connectMany(2);
  EXPECT_EQ(start(body(), "", key), id);
  EXPECT_TRUE(router_.sent.empty());
  wall_ += 86400LL * 1000 + 1;
  api_->tick();
  store_.run();
  for (const auto& [name, value] : store_.settings) {
    EXPECT_NE(name.substr(0, 12), "idempotency/") << name;
  }
  EXPECT_NE(start(body(), "", key), id);
  for (const std::string& bad : {std::string(), std::string(129, 'a'), std::string("a b"),
                                 std::string("a\xff"), std::string("a\nb")}) {
    EXPECT_EQ(call("POST", "/v1/operations", admin_, body(), {{"idempotency-key", bad}}).problem(),
              "malformed-request");
  }
}

TEST_F(OperationsTest, NothingRunsIfItCannotBeStored) {
  connectMany(2);
  store_.failure = "the disk is full";
  const Headers key = {{"idempotency-key", "k"}};
  const Got answer = call("POST", "/v1/operations", admin_, body(), key);
  EXPECT_EQ(answer.status, 503U);
  EXPECT_EQ(answer.problem(), "storage");
  EXPECT_TRUE(router_.sent.empty());
  EXPECT_EQ(api_->runningOperations(), 0U);
  store_.failure.clear();
  start(body(), "", key);
  EXPECT_EQ(router_.sent.size(), 2U);
}

TEST_F(OperationsTest, ADeviceThatCannotBeMarkedIsNotReached) {
  connectMany(3);
  const std::string id = start(body("@all", 1));
  store_.failure = "the disk is full";
  router_.answer(answered(""));
  store_.run();
  EXPECT_TRUE(router_.sent.empty());
  EXPECT_EQ(operation(id)["state"], "done");  // from memory: its end is not stored
  EXPECT_EQ(api_->runningOperations(), 1U);
  store_.failure.clear();
  api_->tick();
  store_.run();
  EXPECT_EQ(api_->runningOperations(), 0U);
  const Json now = operation(id);
  EXPECT_EQ(now["answered"], 1);
  EXPECT_EQ(now["not_run"], 2);
  // The database may know less, and nothing wrong: the first device has run.
  EXPECT_EQ(stored(), (std::map<std::string, int>{{"unknown", 1}, {"not run", 2}}));
}

TEST_F(OperationsTest, OthersDoNotSeeIt) {
  connectMany(1);
  const std::string id = start(body(), operator_);
  const std::string other = makeToken("other", Role::deviceOperator);
  EXPECT_EQ(get("/v1/operations/" + id, operator_).status, 200U);
  EXPECT_EQ(get("/v1/operations/" + id).status, 200U);
  EXPECT_EQ(get("/v1/operations/" + id, other).status, 404U);
  EXPECT_EQ(get("/v1/operations/" + id + "/results", other).status, 404U);
  EXPECT_EQ(post("/v1/operations/" + id + "/cancel", nullptr, other).status, 404U);
  EXPECT_EQ(get("/v1/operations", other).json["items"].size(), 0U);
  EXPECT_EQ(get("/v1/operations", operator_).json["items"].size(), 1U);
  answerAll();
  EXPECT_EQ(get("/v1/operations/" + id, other).status, 404U);
  for (const char* const bad : {"0", "x", "1x", "-1", "99999999999999999999999"}) {
    EXPECT_EQ(get(std::string("/v1/operations/") + bad).status, 404U) << bad;
  }
}

TEST_F(OperationsTest, TheListHasPagesAndStates) {
  connectMany(1);
  for (int round = 0; round < 3; ++round) {
    start(body());
  }
  answerAll();
  const std::string last = start(body());
  const Got first = get("/v1/operations?limit=3");
  EXPECT_EQ(first.json["items"][0]["id"], last);
  EXPECT_EQ(first.json["items"][0]["state"], "running");
  const std::string cursor = first.json["next"];
  EXPECT_EQ(get("/v1/operations?cursor=" + cursor).json["items"].size(), 1U);
  EXPECT_EQ(get("/v1/operations?state=done").json["items"].size(), 3U);
  EXPECT_EQ(get("/v1/operations?state=done&cursor=" + cursor).problem(), "invalid-cursor");
}

TEST_F(OperationsTest, ItsTaskAndQueryAreChecked) {
  connectMany(1);
  Json wrong = body("gw-9");
  EXPECT_EQ(post("/v1/operations", wrong).problem(), "invalid-query");
  wrong = body("@@");
  EXPECT_EQ(post("/v1/operations", wrong).problem(), "invalid-query");
  wrong = body();
  wrong["parallel"] = 1001;
  EXPECT_EQ(post("/v1/operations", wrong).problem(), "malformed-request");
  wrong = body();
  wrong["task"] = {{"task", "wait"}};
  EXPECT_EQ(post("/v1/operations", wrong).problem(), "refused-task");
  wrong["task"] = {{"task", "stat"}, {"argument", "/"}};
  EXPECT_EQ(post("/v1/operations", wrong).json["pointer"], "/task/argument");
  EXPECT_EQ(post("/v1/operations", body(), viewer_).status, 403U);
  const Json look = {{"query", "@all"}, {"task", {{"task", "hostid"}}}};
  const std::size_t before = store_.audit.size();
  start(look, viewer_);
  EXPECT_EQ(store_.audit.size(), before);
  answerAll();
}

TEST_F(OperationsTest, ItIsRecordedWithItsDevices) {
  connectMany(2);
  start(body("gw-*"));
  EXPECT_EQ(store_.audit.back().what, "startOperation: reboot");
  EXPECT_EQ(store_.audit.back().devices, "gw-*");
  EXPECT_EQ(store_.audit.back().detail, "2 devices, operation 1");
  answerAll();
}

TEST_F(OperationsTest, OnlySoManyRun) {
  settings_.mostOperations = 2;
  restart();
  connectMany(1);
  start(body());
  start(body());
  const Got answer = post("/v1/operations", body());
  EXPECT_EQ(answer.status, 429U);
  answerAll();
  start(body());
  answerAll();
}

TEST_F(OperationsTest, AnOperationWithoutDevicesIsDone) {
  const std::string id = start(body());
  EXPECT_EQ(operation(id)["state"], "done");
  EXPECT_EQ(operation(id)["devices"], 0);
}

TEST_F(OperationsTest, LargeOnesAreStoredInPieces) {
  registrySettings_.mostDevices = 5000;
  connectMany(2500);
  const std::string id = start(body("@all", 1000));
  EXPECT_EQ(router_.sent.size(), 1000U);
  for (const auto& changes : store_.writes) {
    EXPECT_LE(changes.size(), 2600U);  // of the registry; those of operations have 1000
  }
  answerAll();
  EXPECT_EQ(operation(id)["answered"], 2500);
  EXPECT_EQ(stored(), (std::map<std::string, int>{{"answered", 2500}}));
}

}  // namespace
}  // namespace runelgw
