// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "unit/gateway/api/fixture.h"

namespace runelgw {
namespace {

class FleetRoutesTest : public ApiTest {};

TEST_F(FleetRoutesTest, GroupsAreSavedReadAndRemoved) {
  const Got made = call("PUT", "/v1/groups/north", admin_, {{"query", "site=n*"}});
  EXPECT_EQ(made.status, 201U);
  EXPECT_EQ(made.json, Json({{"name", "north"}, {"query", "site=n*"}}));
  const Got read = get("/v1/groups/north", viewer_);
  EXPECT_EQ(read.headers.at("ETag"), made.headers.at("ETag"));
  EXPECT_EQ(get("/v1/groups").json["items"].size(), 1U);
  EXPECT_EQ(call("DELETE", "/v1/groups/north", admin_).status, 204U);
  EXPECT_EQ(get("/v1/groups/north").status, 404U);
  EXPECT_EQ(call("DELETE", "/v1/groups/north", admin_).status, 404U);
}

TEST_F(FleetRoutesTest, AGroupIsReplacedOnlyByOneWhoKnowsIt) {
  const Json other = {{"query", "site=m"}};
  const std::string etag =
      call("PUT", "/v1/groups/g", admin_, {{"query", "site=n"}}).headers.at("ETag");
  EXPECT_EQ(call("PUT", "/v1/groups/g", admin_, other).status, 428U);
  EXPECT_EQ(call("PUT", "/v1/groups/g", admin_, other, {{"if-none-match", "*"}}).status, 412U);
  EXPECT_EQ(call("PUT", "/v1/groups/g", admin_, other, {{"if-match", "\"x\""}}).status, 412U);
  EXPECT_EQ(call("PUT", "/v1/groups/h", admin_, other, {{"if-match", "*"}}).status, 412U);
  EXPECT_EQ(call("PUT", "/v1/groups/g", admin_, other, {{"if-match", etag}}).status, 200U);
  EXPECT_EQ(call("PUT", "/v1/groups/g", admin_, other, {{"if-match", etag}}).status, 412U);
  EXPECT_EQ(call("DELETE", "/v1/groups/g", admin_, nullptr, {{"if-match", etag}}).status, 412U);
  EXPECT_EQ(call("PUT", "/v1/groups/new", admin_, other, {{"if-none-match", "*"}}).status, 201U);
}

TEST_F(FleetRoutesTest, AGroupThatATokenNeedsStays) {
  makeGroupA();
  makeToken("ci", Role::deviceOperator, {"a"});
  EXPECT_EQ(call("DELETE", "/v1/groups/a", admin_).status, 409U);
  ASSERT_TRUE(auth_->revoke(4, [](const std::optional<std::string>&) {}));
  EXPECT_EQ(call("DELETE", "/v1/groups/a", admin_).status, 204U);
}

TEST_F(FleetRoutesTest, ALimitedTokenKnowsItsGroupsOnly) {
  makeGroupA();
  ASSERT_TRUE(registry_->setGroup("b", "site=b"));
  const std::string token = makeToken("ci", Role::viewer, {"a"});
  EXPECT_EQ(get("/v1/groups", token).json["items"].size(), 1U);
  EXPECT_EQ(get("/v1/groups/a", token).status, 200U);
  EXPECT_EQ(get("/v1/groups/b", token).status, 404U);
}

TEST_F(FleetRoutesTest, AWrongGroupIsExplained) {
  EXPECT_EQ(call("PUT", "/v1/groups/g", admin_, {{"query", "site="}}).status, 201U);
  EXPECT_EQ(call("PUT", "/v1/groups/h", admin_, {{"query", "state:x"}}).problem(), "invalid-query");
  EXPECT_EQ(call("PUT", "/v1/groups/h", admin_, {{"query", "@h"}}).problem(), "invalid-query");
  EXPECT_EQ(call("PUT", "/v1/groups/all", admin_, {{"query", "x=y"}}).problem(), "invalid-query");
}

TEST_F(FleetRoutesTest, ListsHavePages) {
  for (const char* const name : {"c", "a", "b"}) {
    ASSERT_TRUE(registry_->setGroup(name, "x=y"));
  }
  const Got first = get("/v1/groups?limit=2");
  EXPECT_EQ(first.json["items"][1]["name"], "b");
  const std::string cursor = first.json["next"];
  const Got second = get("/v1/groups?cursor=" + cursor);
  ASSERT_EQ(second.json["items"].size(), 1U);
  EXPECT_EQ(second.json["items"][0]["name"], "c");
  EXPECT_EQ(second.json["next"], nullptr);
}

TEST_F(FleetRoutesTest, RulesSetTags) {
  connect("gw-1");
  const Got made = call("PUT", "/v1/tag-rules/r", admin_,
                        {{"query", "gw-*"}, {"tag", "kind"}, {"value", "gateway"}});
  EXPECT_EQ(made.status, 201U) << made.text;
  EXPECT_EQ(get("/v1/tag-rules").json["items"].size(), 1U);
  EXPECT_EQ(get("/v1/tag-rules/r").json["tag"], "kind");
  EXPECT_EQ(get("/v1/devices/gw-1").json["tags"]["kind"], "gateway");
  EXPECT_EQ(get("/v1/devices/gw-1").json["rule_tags"][0], "kind");
  EXPECT_EQ(call("PUT", "/v1/tag-rules/r", admin_, {{"query", "gw-*"}, {"tag", "kind"}}).status,
            428U);
  EXPECT_EQ(call("PUT", "/v1/tag-rules/r", admin_, {{"query", "gw-*"}, {"tag", "other"}},
                 {{"if-match", made.headers.at("ETag")}})
                .status,
            200U);
  EXPECT_EQ(call("DELETE", "/v1/tag-rules/r", admin_).status, 204U);
  EXPECT_EQ(call("DELETE", "/v1/tag-rules/r", admin_).status, 404U);
  EXPECT_EQ(get("/v1/tag-rules/r").status, 404U);
  EXPECT_EQ(call("PUT", "/v1/tag-rules/r", admin_, {{"query", "gw-*"}, {"tag", "a b"}}).status,
            400U);
}

TEST_F(FleetRoutesTest, DevicesAreAllowedAndDenied) {
  const Json wish = {{"kind", "hostid"}, {"value", {{"base64", "/w=="}}}, {"allow", false}};
  const Got made = post("/v1/access", wish);
  EXPECT_EQ(made.status, 201U) << made.text;
  EXPECT_EQ(made.json["value"]["base64"], "/w==");
  EXPECT_EQ(post("/v1/access", wish).status, 200U);
  const Got network =
      post("/v1/access", {{"kind", "address"}, {"value", "10.0.0.0/8"}, {"allow", true}});
  EXPECT_EQ(network.status, 201U);
  EXPECT_EQ(get("/v1/access").json["items"].size(), 2U);
  EXPECT_EQ(call("DELETE", network.headers.at("Location"), admin_).status, 204U);
  EXPECT_EQ(call("DELETE", network.headers.at("Location"), admin_).status, 404U);
  EXPECT_EQ(get("/v1/access").json["items"].size(), 1U);
  EXPECT_EQ(
      post("/v1/access", {{"kind", "address"}, {"value", "300.0.0.1"}, {"allow", true}}).status,
      400U);
  EXPECT_EQ(post("/v1/access", {{"kind", "x"}, {"value", "1"}, {"allow", true}}).status, 400U);
  EXPECT_EQ(post("/v1/access", {{"kind", "hostid"}, {"value", "1"}}).status, 400U);
}

}  // namespace
}  // namespace runelgw
