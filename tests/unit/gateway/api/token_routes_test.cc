// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "unit/gateway/api/fixture.h"

namespace runelgw {
namespace {

class TokenRoutesTest : public ApiTest {};

TEST_F(TokenRoutesTest, ATokenIsMadeUsedAndRevoked) {
  const Got made =
      post("/v1/tokens", {{"name", "ci"}, {"role", "operator"}, {"kinds", {"look", "run"}}});
  EXPECT_EQ(made.status, 201U) << made.text;
  const std::string secret = made.json["secret"];
  const std::string path = made.headers.at("Location");
  const Got who = get("/v1/session", secret);
  EXPECT_EQ(who.json["name"], "ci");
  EXPECT_EQ(who.json["kinds"], Json({"look", "run"}));
  EXPECT_EQ(who.json["way"], "token");
  const Got read = get(path);
  EXPECT_EQ(read.json["usable"], true);
  EXPECT_FALSE(read.json.contains("secret"));
  EXPECT_EQ(call("DELETE", path, admin_).status, 204U);
  EXPECT_EQ(get("/v1/session", secret).status, 401U);
  EXPECT_EQ(get(path).json["usable"], false);
  EXPECT_EQ(store_.audit[store_.audit.size() - 1].what, "revokeToken");
}

TEST_F(TokenRoutesTest, TheListHasNoSecrets) {
  const Got list = get("/v1/tokens?limit=2");
  EXPECT_EQ(list.json["items"].size(), 2U);
  const std::string cursor = list.json["next"];
  EXPECT_EQ(get("/v1/tokens?cursor=" + cursor).json["items"].size(), 1U);
  EXPECT_EQ(list.text.find("rgw_"), std::string::npos);
  EXPECT_EQ(list.text.find(hashOf(admin_)), std::string::npos);
}

TEST_F(TokenRoutesTest, WrongWishesAreExplained) {
  for (const Json& wish : {
           Json({{"name", "a b"}, {"role", "viewer"}}),
           Json({{"name", "x"}, {"role", "root"}}),
           Json({{"name", "x"}, {"role", "viewer"}, {"kinds", {"run"}}}),
           Json({{"name", "x"}, {"role", "viewer"}, {"kinds", {"exec"}}}),
           Json({{"name", "x"}, {"role", "viewer"}, {"groups", {"nowhere"}}}),
           Json({{"name", "x"}, {"role", "viewer"}, {"groups", Json::array()}}),
           Json({{"name", "x"}, {"role", "viewer"}, {"kinds", Json::array()}}),
           Json({{"name", "x"}, {"role", "viewer"}, {"lifetime_s", 0}}),
           Json({{"name", "x"}, {"role", "viewer"}, {"id", 1}}),
           Json({{"role", "viewer"}}),
       }) {
    EXPECT_EQ(post("/v1/tokens", wish).problem(), "malformed-request") << wish;
  }
  EXPECT_EQ(auth_->tokens().size(), 3U);
  EXPECT_EQ(post("/v1/tokens", {{"name", "admin"}, {"role", "viewer"}}).status, 409U);
  store_.failure = "the disk is full";
  EXPECT_EQ(post("/v1/tokens", {{"name", "x"}, {"role", "viewer"}}).problem(), "storage");
}

TEST_F(TokenRoutesTest, ATokenMayStandForACertificate) {
  const Got made = post("/v1/tokens", {{"name", "build"},
                                       {"role", "operator"},
                                       {"certificate", "build.example"},
                                       {"lifetime_s", 60}});
  EXPECT_EQ(made.json["secret"], nullptr);
  EXPECT_EQ(made.json["certificate"], "build.example");
  certificate_ = "build.example";
  EXPECT_EQ(call("GET", "/v1/session", "").json["name"], "build");
  wall_ += 60000;
  EXPECT_EQ(call("GET", "/v1/session", "").status, 401U);
}

TEST_F(TokenRoutesTest, ARevocationThatIsNotStoredIsSaid) {
  store_.failure = "the disk is full";
  const Got answer = call("DELETE", "/v1/tokens/3", admin_);
  EXPECT_EQ(answer.status, 503U);
  EXPECT_EQ(get("/v1/session", viewer_).status, 401U);
  EXPECT_EQ(call("DELETE", "/v1/tokens/99", admin_).status, 404U);
  EXPECT_EQ(call("DELETE", "/v1/tokens/x", admin_).status, 404U);
}

TEST_F(TokenRoutesTest, ABrowserLogsInAndOut) {
  const Got in = call("POST", "/v1/session", "", {{"token", operator_}});
  EXPECT_EQ(in.status, 200U);
  EXPECT_EQ(in.json["role"], "operator");
  EXPECT_EQ(in.json["way"], "session");
  const std::string setCookie = in.headers.at("Set-Cookie");
  EXPECT_NE(setCookie.find("; HttpOnly; SameSite=Strict"), std::string::npos);
  const std::string cookie = setCookie.substr(0, setCookie.find(';'));
  EXPECT_EQ(call("GET", "/v1/session", "", nullptr, {{"cookie", cookie}}).json["name"], "operator");
  const Got out = call("DELETE", "/v1/session", "", nullptr,
                       {{"cookie", cookie}, {"origin", "http://localhost"}});
  EXPECT_EQ(out.status, 204U);
  EXPECT_NE(out.headers.at("Set-Cookie").find("Max-Age=0"), std::string::npos);
  EXPECT_EQ(call("GET", "/v1/session", "", nullptr, {{"cookie", cookie}}).status, 401U);
  EXPECT_EQ(call("DELETE", "/v1/session", operator_).status, 409U);
  EXPECT_EQ(call("POST", "/v1/session", "", {{"token", "wrong"}}).status, 401U);
  EXPECT_EQ(store_.audit.back().who, "");
  EXPECT_EQ(store_.audit.back().what, "logIn");
}

TEST_F(TokenRoutesTest, TheAuditLogHasPagesAndFilters) {
  makeGroupA();
  call("PUT", "/v1/groups/x", admin_, {{"query", "a=b"}});
  call("PUT", "/v1/groups/y", viewer_, {{"query", "a=b"}});
  call("PUT", "/v1/groups/z", admin_, {{"query", "a=b"}});
  const Got all = get("/v1/audit?limit=2");
  ASSERT_EQ(all.json["items"].size(), 2U);
  EXPECT_EQ(all.json["items"][0]["detail"], "z: a=b");
  EXPECT_EQ(all.json["items"][0]["outcome"], "done");
  const std::string cursor = all.json["next"];
  EXPECT_EQ(get("/v1/audit?limit=2&cursor=" + cursor).json["items"].size(), 1U);
  EXPECT_EQ(get("/v1/audit?who=token viewer").json["items"].size(), 1U);
  EXPECT_EQ(get("/v1/audit?what=setGroup").json["items"].size(), 3U);
  EXPECT_EQ(get("/v1/audit?outcome=done").json["items"].size(), 2U);
}

TEST_F(TokenRoutesTest, AChangeIsLoggedEvenIfItsRecordIsNotStored) {
  store_.failure = "the disk is full";
  call("PUT", "/v1/groups/x", admin_, {{"query", "a=b"}});
  ASSERT_GE(log_.size(), 2U);
  EXPECT_EQ(log_[log_.size() - 2], "token admin (admin) from 192.0.2.1: setGroup: done: x: a=b");
  EXPECT_NE(log_.back().find("the disk is full"), std::string::npos);
}

}  // namespace
}  // namespace runelgw
