// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "unit/gateway/api/fixture.h"

namespace runelgw {
namespace {

class DeviceRoutesTest : public ApiTest {};

TEST_F(DeviceRoutesTest, ListsDevicesByNameInPages) {
  for (const char* const name : {"gw-3", "gw-1", "gw-2", "other"}) {
    connect(name);
  }
  const Got first = get("/v1/devices?query=gw-*&limit=2");
  EXPECT_EQ(first.json["total"], 3);
  ASSERT_EQ(first.json["items"].size(), 2U);
  EXPECT_EQ(first.json["items"][0]["name"], "gw-1");
  EXPECT_EQ(first.json["items"][0]["state"], "online");
  const std::string cursor = first.json["next"];
  const Got second = get("/v1/devices?query=gw-*&limit=2&cursor=" + cursor);
  ASSERT_EQ(second.json["items"].size(), 1U);
  EXPECT_EQ(second.json["items"][0]["name"], "gw-3");
  EXPECT_EQ(second.json["next"], nullptr);
}

TEST_F(DeviceRoutesTest, APageContinuesWhereTheLastOneEndedAlsoIfThatDeviceIsGone) {
  for (const char* const name : {"gw-1", "gw-2", "gw-3"}) {
    connect(name);
  }
  const std::string cursor = get("/v1/devices?limit=2").json["next"];
  disconnect("gw-2");
  EXPECT_EQ(call("DELETE", "/v1/devices/gw-2", admin_).status, 204U);
  const Got second = get("/v1/devices?limit=2&cursor=" + cursor);
  ASSERT_EQ(second.json["items"].size(), 1U);
  EXPECT_EQ(second.json["items"][0]["name"], "gw-3");
}

TEST_F(DeviceRoutesTest, AWrongQueryIsExplained) {
  const Got answer = get("/v1/devices?query=state:onlin");
  EXPECT_EQ(answer.problem(), "invalid-query");
  EXPECT_NE(answer.json["detail"].get<std::string>().find("online"), std::string::npos);
  EXPECT_EQ(get("/v1/devices?query=gw-9").problem(), "invalid-query");
}

TEST_F(DeviceRoutesTest, ShowsTheFieldsThatAreWanted) {
  connect("gw-1");
  const Got page = get("/v1/devices?fields=name,state");
  EXPECT_EQ(page.json["items"][0], Json({{"name", "gw-1"}, {"state", "online"}}));
  EXPECT_EQ(get("/v1/devices/gw-1?fields=queue").json.size(), 1U);
  EXPECT_EQ(get("/v1/devices?fields=name,secret").problem(), "malformed-request");
  EXPECT_EQ(get("/v1/devices?fields=").problem(), "malformed-request");
  EXPECT_EQ(get("/v1/devices/gw-1?fields=name,,state").problem(), "malformed-request");
  EXPECT_EQ(get("/v1/devices/gw-1?fields=name,name").json, Json({{"name", "gw-1"}}));
}

TEST_F(DeviceRoutesTest, ShowsOneDeviceWithItsQueueAndConnections) {
  const DeviceId id = connect("gw-1");
  QueueState& queue = router_.queues[id];
  queue.waiting = 2;
  queue.busyWith = "exec by token ci";
  queue.since = 1700000000000;
  queue.bytes = 300;
  const Got answer = get("/v1/devices/gw-1");
  EXPECT_EQ(answer.json["hostid"], "gw-1");
  EXPECT_EQ(answer.json["device_type"], "controller");
  EXPECT_EQ(answer.json["queue"]["busy_with"], "exec by token ci");
  EXPECT_EQ(answer.json["queue"]["since"], "2023-11-14T22:13:20.000Z");
  ASSERT_EQ(answer.json["connections"].size(), 1U);
  EXPECT_EQ(answer.json["connections"][0]["verdict"], "used");
  EXPECT_EQ(answer.headers.count("ETag"), 1U);
}

TEST_F(DeviceRoutesTest, HostidsOfAnyBytesAreShown) {
  const std::string hostid("\xff\0\r\n\"", 5);
  Place place;
  place.host = "10.1.0.1";
  place.port = 4000;
  registry_->connected(place, hostid, "\xfe");
  const Got page = get("/v1/devices");
  ASSERT_EQ(page.json["items"].size(), 1U);
  EXPECT_EQ(page.json["items"][0]["hostid"]["base64"], "/wANCiI=");
}

TEST_F(DeviceRoutesTest, ADeviceIsDeniedAndApproved) {
  connect("gw-1");
  EXPECT_EQ(call("POST", "/v1/devices/gw-1/deny", admin_).json["state"], "denied");
  EXPECT_EQ(call("POST", "/v1/devices/gw-1/approve", admin_).json["state"], "online");
  EXPECT_EQ(store_.audit.back().what, "approveDevice");
  EXPECT_EQ(store_.audit.back().devices, "gw-1");
  EXPECT_EQ(store_.audit.back().outcome, "done");
}

TEST_F(DeviceRoutesTest, OnlyADeviceThatIsAwayIsForgotten) {
  connect("gw-1");
  EXPECT_EQ(call("DELETE", "/v1/devices/gw-1", admin_).status, 409U);
  disconnect("gw-1");
  EXPECT_EQ(call("DELETE", "/v1/devices/gw-1", admin_).status, 204U);
  EXPECT_EQ(get("/v1/devices/gw-1").status, 404U);
}

TEST_F(DeviceRoutesTest, TagsAreSetAndRemoved) {
  connect("gw-1");
  const Got set = call("PUT", "/v1/devices/gw-1/tags/site", operator_, {{"value", "a b"}});
  EXPECT_EQ(set.json["tags"]["site"], "a b");
  EXPECT_EQ(store_.audit.back().detail, "site=a b");
  EXPECT_EQ(call("DELETE", "/v1/devices/gw-1/tags/site", operator_).json["tags"], Json::object());
  EXPECT_EQ(call("DELETE", "/v1/devices/gw-1/tags/site", operator_).status, 404U);
  EXPECT_EQ(call("PUT", "/v1/devices/gw-1/tags/a b", operator_, {{"value", "x"}}).status, 409U);
  EXPECT_EQ(call("PUT", "/v1/devices/gw-9/tags/site", operator_, {{"value", "x"}}).status, 404U);
}

TEST_F(DeviceRoutesTest, TwoPeopleDoNotOverwriteEachOther) {
  connect("gw-1");
  const std::string etag = get("/v1/devices/gw-1").headers.at("ETag");
  const Headers condition = {{"if-match", etag}};
  EXPECT_EQ(
      call("PUT", "/v1/devices/gw-1/tags/site", operator_, {{"value", "a"}}, condition).status,
      200U);
  const Got second = call("PUT", "/v1/devices/gw-1/tags/site", admin_, {{"value", "b"}}, condition);
  EXPECT_EQ(second.status, 412U);
  EXPECT_EQ(second.problem(), "changed");
  EXPECT_EQ(registry_->find("gw-1")->tags.at("site"), "a");
}

TEST_F(DeviceRoutesTest, ADeviceIsPinned) {
  connect("gw-1");
  const Got pinned = call("PUT", "/v1/devices/gw-1/pin", admin_, {{"address", "10.0.0.1"}});
  EXPECT_EQ(pinned.status, 200U) << pinned.text;
  EXPECT_EQ(pinned.json["pin"]["address"], "10.0.0.1");
  EXPECT_EQ(call("DELETE", "/v1/devices/gw-1/pin", admin_).json["pin"]["address"], nullptr);
  EXPECT_EQ(call("PUT", "/v1/devices/gw-1/pin", admin_, {{"connection", true}}).status, 200U);
  EXPECT_EQ(call("PUT", "/v1/devices/gw-1/pin", admin_, Json::object()).status, 400U);
  EXPECT_EQ(
      call("PUT", "/v1/devices/gw-1/pin", admin_, {{"connection", true}, {"address", "x"}}).status,
      400U);
}

TEST_F(DeviceRoutesTest, HistoryHasPagesAndTimes) {
  const DeviceId id = connect("gw-1");
  store_.history.clear();
  for (int event = 0; event < 5; ++event) {
    HistoryRecord record;
    record.id = store_.history.size() + 1;
    record.device = id;
    record.time = 1700000000000 + event * 1000;
    record.event = event % 2 == 0 ? "connected" : "lost";
    store_.history.push_back(record);
  }
  const Got first = get("/v1/devices/gw-1/history?limit=2");
  EXPECT_EQ(first.json["items"][0]["id"], 5);
  const std::string cursor = first.json["next"];
  const Got second = get("/v1/devices/gw-1/history?limit=2&cursor=" + cursor);
  EXPECT_EQ(second.json["items"][0]["id"], 3);
  EXPECT_EQ(get("/v1/devices/gw-1/history?event=lost").json["items"].size(), 2U);
  EXPECT_EQ(get("/v1/devices/gw-1/history?since=2023-11-14T22:13:22Z&until=2023-11-14T22:13:24Z")
                .json["items"]
                .size(),
            2U);
  store_.failure = "the database is locked";
  EXPECT_EQ(get("/v1/devices/gw-1/history").problem(), "storage");
}

TEST_F(DeviceRoutesTest, ClausesOfAnyBytesAreListed) {
  const DeviceId id = connect("gw-1");
  store_.clauses.push_back({1, id, 1700000000000, "<a>\xff</a>"});
  store_.clauses.push_back({2, id, 1700000000001, "<b/>"});
  const Got page = get("/v1/devices/gw-1/clauses", operator_);
  EXPECT_EQ(page.json["items"][0]["text"], "<b/>");
  EXPECT_EQ(page.json["items"][1]["text"]["base64"], "PGE+/zwvYT4=");
  const std::string looks = makeToken("looks", Role::deviceOperator, {}, {"look"});
  EXPECT_EQ(get("/v1/devices/gw-1/clauses", looks).status, 403U);
}

}  // namespace
}  // namespace runelgw
