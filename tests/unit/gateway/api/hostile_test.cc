// SPDX-License-Identifier: Apache-2.0
// Clients that want more than they may have.
#include <algorithm>
#include <string>

#include "unit/gateway/api/fixture.h"

namespace runelgw {
namespace {

class HostileTest : public ApiTest {
 protected:
  std::string logIn(const std::string& token) {
    const Got answer = call("POST", "/v1/session", "", {{"token", token}});
    EXPECT_EQ(answer.status, 200U);
    const std::string cookie = answer.headers.at("Set-Cookie");
    return cookie.substr(0, cookie.find(';'));
  }

  // Whether anything that is kept or logged has @p text.
  bool isAnywhere(const std::string& text) const {
    const auto has = [&](const std::string& where) {
      return where.find(text) != std::string::npos;
    };
    for (const AuditRecord& record : store_.audit) {
      if (has(record.who + record.what + record.devices + record.outcome + record.detail +
              record.from)) {
        return true;
      }
    }
    for (const auto& [id, record] : store_.tokens) {
      if (has(record.name + record.hash + record.role)) {
        return true;
      }
    }
    for (const auto& [id, record] : store_.operations) {
      if (has(record.who + record.query + record.request)) {
        return true;
      }
    }
    return std::any_of(log_.begin(), log_.end(), has);
  }
};

TEST_F(HostileTest, ATokenInTheAddressIsRefusedAndNotRepeated) {
  for (const std::string& target : {"/v1/devices?query=" + admin_, "/v1/devices/" + admin_,
                                    "/" + admin_, "/v1/x?a=1" + admin_}) {
    const Got answer = call("GET", target, admin_);
    EXPECT_EQ(answer.status, 400U) << target;
    EXPECT_EQ(answer.problem(), "secret-in-url");
    EXPECT_EQ(answer.text.find("rgw_"), std::string::npos);
    EXPECT_EQ(call("POST", target, "").problem(), "secret-in-url");
  }
}

TEST_F(HostileTest, NoTokenIsInLogsOrRecords) {
  const std::string cookie = logIn(operator_);
  const std::string session = cookie.substr(cookie.find('=') + 1);
  call("POST", "/v1/session", "", {{"token", viewer_ + "x"}});
  call("POST", "/v1/session", "", {{"token", "rgw_" + std::string(43, 'B')}});
  call("POST", "/v1/tokens", admin_, {{"name", "new"}, {"role", "viewer"}});
  call("POST", "/v1/operations", viewer_, Json::object());
  call("DELETE", "/v1/tokens/3", admin_);
  call("DELETE", "/v1/session", "", nullptr, {{"cookie", cookie}, {"origin", "http://localhost"}});
  EXPECT_GE(store_.audit.size(), 6U);
  EXPECT_GE(log_.size(), 6U);
  for (const std::string& secret : {admin_, operator_, viewer_, session, std::string("BBBBBBBB")}) {
    EXPECT_FALSE(isAnywhere(secret.substr(0, 12))) << secret;
  }
  EXPECT_FALSE(isAnywhere("rgw_"));
}

TEST_F(HostileTest, ASessionIsForPagesOfThisServerOnly) {
  const std::string cookie = logIn(admin_);
  const Json body = {{"query", "@all"}};
  const auto statusWith = [&](const std::string& method, Headers headers) {
    headers.emplace_back("cookie", cookie);
    return call(method, "/v1/groups/g", "", method == "GET" ? Json() : body, headers).status;
  };
  EXPECT_EQ(statusWith("PUT", {}), 403U);
  EXPECT_EQ(statusWith("PUT", {{"origin", "http://localhost"}, {"sec-fetch-site", "cross-site"}}),
            403U);
  EXPECT_EQ(statusWith("PUT", {{"origin", "http://localhost"}, {"sec-fetch-site", "same-site"}}),
            403U);
  EXPECT_EQ(registry_->groups().all().size(), 0U);
  EXPECT_EQ(statusWith("PUT", {{"origin", "http://localhost"}, {"sec-fetch-site", "same-origin"}}),
            201U);
  EXPECT_EQ(statusWith("GET", {}), 200U);
  EXPECT_EQ(statusWith("GET", {{"sec-fetch-site", "cross-site"}}), 403U);
  EXPECT_EQ(statusWith("DELETE", {}), 403U);
  Headers socket = {{"upgrade", "websocket"}, {"connection", "upgrade"}, {"cookie", cookie}};
  EXPECT_EQ(call("GET", "/v1/attach", "", nullptr, socket).problem(), "cross-site");
  EXPECT_EQ(attached_, nullptr);
  socket.emplace_back("origin", "http://localhost");
  ask("GET", "/v1/attach", "", "", socket);
  EXPECT_NE(attached_, nullptr);
}

TEST_F(HostileTest, TheCookieOfAnUnencryptedPageIsNotTakenWithTls) {
  const std::string cookie = logIn(admin_);
  EXPECT_EQ(call("GET", "/v1/session", "", nullptr, {{"cookie", cookie}}).status, 200U);
  tls_ = true;
  EXPECT_EQ(call("GET", "/v1/session", "", nullptr, {{"cookie", cookie}}).status, 401U);
  EXPECT_EQ(call("GET", "/v1/session", "", nullptr, {{"cookie", "__Host-" + cookie}}).status, 200U);
  const Got answer = call("POST", "/v1/session", "", {{"token", admin_}});
  EXPECT_NE(answer.headers.at("Set-Cookie").find("; Secure"), std::string::npos);
}

TEST_F(HostileTest, BodiesAreJsonObjectsWithKnownMembers) {
  const auto problemOf = [&](const std::string& body,
                             const std::string& type = "application/json") {
    auto exchange = std::make_shared<FakeExchange>();
    exchange->asked.method = "PUT";
    exchange->asked.path = exchange->asked.target = "/v1/groups/g";
    exchange->asked.headers = {{"authorization", "Bearer " + admin_}};
    if (!type.empty()) {
      exchange->asked.headers.emplace_back("content-type", type);
    }
    exchange->asked.body = body;
    api_->handle(exchange);
    store_.run();
    return got(exchange).problem();
  };
  const std::string good = R"({"query":"@all"})";
  EXPECT_EQ(problemOf(good, ""), "media-type");
  EXPECT_EQ(problemOf(good, "text/plain"), "media-type");
  EXPECT_EQ(problemOf(good, "application/json-patch+json"), "media-type");
  EXPECT_EQ(problemOf(good, "application/x-www-form-urlencoded"), "media-type");
  for (const std::string& body :
       {std::string(), std::string("[]"), std::string("\"x\""), std::string("{"),
        std::string(R"({"query":"@all","query":"!@all"})"),
        std::string(R"({"query":"@all","x":1})"), std::string(R"({"query":"a\xff"})"),
        std::string("{\"query\":\"\xff\"}"), std::string(R"({"query":["@all"]})"),
        std::string("{}"), R"({"query":)" + std::string(100000, '[')}) {
    EXPECT_EQ(problemOf(body), "malformed-request") << body.substr(0, 40);
  }
  EXPECT_TRUE(registry_->groups().all().empty());
  EXPECT_EQ(problemOf(good, "Application/JSON; charset=utf-8"), "");
  EXPECT_EQ(registry_->groups().all().size(), 1U);
}

TEST_F(HostileTest, ARequestWithoutABodyHasNone) {
  EXPECT_EQ(call("DELETE", "/v1/groups/g", admin_, {{"query", "x"}}).problem(),
            "malformed-request");
  EXPECT_EQ(got(ask("GET", "/v1/devices", admin_, "x")).problem(), "malformed-request");
}

TEST_F(HostileTest, ParametersAreKnownAndOccurOnce) {
  EXPECT_EQ(get("/v1/devices?quory=x").problem(), "malformed-request");
  EXPECT_EQ(get("/v1/devices?limit=1&limit=2").problem(), "malformed-request");
  EXPECT_EQ(get("/v1/info?x").problem(), "malformed-request");
  for (const char* const limit : {"0", "-1", "1001", "1e2", "", " 1", "99999999999999999999"}) {
    EXPECT_EQ(get(std::string("/v1/devices?limit=") + limit).problem(), "malformed-request")
        << limit;
  }
  EXPECT_EQ(get("/v1/audit?since=yesterday").problem(), "malformed-request");
}

TEST_F(HostileTest, PathsAndMethodsThatDoNotExist) {
  for (const char* const path : {"/", "/v1", "/v1/", "/v1/devices/", "/v2/devices",
                                 "/v1/devices/a/b", "/v1/devices//history", "//healthz", "*", ""}) {
    EXPECT_EQ(get(path).status, 404U) << path;
  }
  const Got answer = call("PATCH", "/v1/devices", admin_);
  EXPECT_EQ(answer.status, 405U);
  EXPECT_EQ(answer.headers.at("Allow"), "GET, HEAD");
  EXPECT_EQ(call("TRACE", "/v1/session", admin_).headers.at("Allow"), "POST, GET, HEAD, DELETE");
  EXPECT_EQ(call("HEAD", "/v1/devices", admin_).status, 200U);
}

TEST_F(HostileTest, ACursorOfAnotherListIsRefused) {
  for (const char* const name : {"gw-1", "gw-2", "gw-3"}) {
    connect(name);
  }
  const Got first = get("/v1/devices?limit=1");
  const std::string cursor = first.json["next"];
  EXPECT_EQ(get("/v1/devices?limit=2&cursor=" + cursor).status, 200U);
  EXPECT_EQ(get("/v1/devices?query=gw-*&cursor=" + cursor).problem(), "invalid-cursor");
  EXPECT_EQ(get("/v1/groups?cursor=" + cursor).problem(), "invalid-cursor");
  EXPECT_EQ(get("/v1/devices/gw-1/history?cursor=" + cursor).problem(), "invalid-cursor");
  EXPECT_EQ(get("/v1/devices?cursor=x" + cursor).problem(), "invalid-cursor");
  EXPECT_EQ(get("/v1/devices?cursor=").problem(), "invalid-cursor");
  EXPECT_EQ(get("/v1/audit?cursor=NQ").problem(), "invalid-cursor");
}

TEST_F(HostileTest, NamesDoNotMakeHeadersOrLines) {
  const DeviceId device = connect("gw-1");
  const std::string evil = "x\r\nSet-Cookie: a=b\r\n\r\n<script>";
  call("PUT", "/v1/devices/gw-1/tags/" + evil, admin_, {{"value", evil}});
  call("POST", "/v1/devices/" + evil + "/tasks", admin_,
       {{"task", "exec"}, {"limit_s", 3}, {"arguments", {evil}}});
  call("PUT", "/v1/groups/" + evil, admin_, {{"query", evil}});
  call("POST", "/v1/access", admin_,
       {{"kind", "hostid"}, {"value", evil}, {"allow", true}, {"note", evil}});
  call("POST", "/v1/tokens", admin_, {{"name", evil}, {"role", "viewer"}});
  EXPECT_EQ(registry_->find(device)->tags.size(), 0U);
  EXPECT_GE(log_.size(), 5U);
  for (const std::string& line : log_) {
    EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos) << line;
  }
}

TEST_F(HostileTest, UnknownClientsAreLimitedAndDoNotFillTheDatabase) {
  std::size_t limited = 0;
  for (int round = 0; round < 500; ++round) {
    limited +=
        call("POST", "/v1/operations", "rgw_" + std::string(43, 'A'), Json::object()).status == 429;
  }
  EXPECT_EQ(limited, 490U);
  EXPECT_LT(store_.audit.size(), 30U);
  const Got answer = call("POST", "/v1/operations", "rgw_" + std::string(43, 'A'), Json::object());
  EXPECT_GT(std::stoi(answer.headers.at("Retry-After")), 0);
  EXPECT_EQ(get("/v1/session").status, 200U);  // a valid token is not locked out
  steady_ += std::chrono::minutes(1);
  call("POST", "/v1/operations", "", Json::object());
  EXPECT_EQ(store_.audit.back().outcome, "refused (unauthorized)");
  EXPECT_NE(store_.audit.back().detail.find("refused requests before it were left out"),
            std::string::npos);
  EXPECT_EQ(store_.audit.back().from, "192.0.2.1");
}

TEST_F(HostileTest, ATokenHasItsRateAndTheRefusalIsRecorded) {
  authSettings_.tokenRate = {1, 3};
  restart();
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(get("/v1/session", operator_).status, 200U);
  }
  const Got answer = call("POST", "/v1/operations", operator_, Json::object());
  EXPECT_EQ(answer.status, 429U);
  EXPECT_EQ(answer.headers.at("Retry-After"), "1");
  EXPECT_EQ(store_.audit.back().outcome, "refused (too-many)");
  EXPECT_NE(store_.audit.back().detail.find("operator"), std::string::npos);
  EXPECT_EQ(get("/v1/session").status, 200U);
}

TEST_F(HostileTest, RefusedChangesAreRecordedWithWhoAndWhere) {
  call("PUT", "/v1/groups/g", viewer_, {{"query", "@all"}});
  ASSERT_FALSE(store_.audit.empty());
  const AuditRecord& record = store_.audit.back();
  EXPECT_EQ(record.who, "token viewer");
  EXPECT_EQ(record.role, "viewer");
  EXPECT_EQ(record.from, "192.0.2.1");
  EXPECT_EQ(record.what, "setGroup");
  EXPECT_EQ(record.outcome, "refused (forbidden)");
  call("POST", "/v1/devices/gw-1/deny", "");
  EXPECT_EQ(store_.audit.back().devices, "gw-1");
  call("PUT", "/v1/groups/g", viewer_, {{"query", "@all"}});
  EXPECT_EQ(
      log_.back(),
      "token viewer (viewer) from 192.0.2.1: setGroup: refused (forbidden): this needs the role "
      "unlimited admin");
}

TEST_F(HostileTest, OnlyKnownClientsMaySendLargeBodies) {
  HttpRequest request;
  request.method = "POST";
  request.path = "/v1/devices/gw-1/tasks";
  EXPECT_EQ(api_->bodyLimit(request), 65536U);
  request.headers = {{"authorization", "Bearer " + admin_ + "x"}};
  EXPECT_EQ(api_->bodyLimit(request), 65536U);
  request.headers = {{"authorization", "Bearer " + viewer_}};
  EXPECT_EQ(api_->bodyLimit(request), settings_.taskBodyBytes);
  request.path = "/v1/tokens";
  EXPECT_EQ(api_->bodyLimit(request), settings_.bodyBytes);
  request.path = "/v1/session";
  EXPECT_EQ(api_->bodyLimit(request), 65536U);
  request.path = "/nothing";
  EXPECT_EQ(api_->bodyLimit(request), 65536U);
}

TEST_F(HostileTest, DevicesOfOtherGroupsDoNotExist) {
  makeGroupA();
  const DeviceId inside = connect("gw-1");
  connect("gw-2");
  ASSERT_TRUE(registry_->setTag(inside, "site", "a"));
  const std::string token = makeToken("limited", Role::admin, {"a"});
  EXPECT_EQ(get("/v1/devices", token).json["total"], 1);
  EXPECT_EQ(get("/v1/devices/gw-1", token).status, 200U);
  const Got hidden = get("/v1/devices/gw-2", token);
  EXPECT_EQ(hidden.status, 404U);
  EXPECT_EQ(hidden.text, get("/v1/devices/gw-3", token).text);
  EXPECT_EQ(call("POST", "/v1/devices/gw-2/deny", token).status, 404U);
  EXPECT_EQ(call("DELETE", "/v1/devices/gw-2", token).status, 404U);
  EXPECT_EQ(get("/v1/devices/gw-2/history", token).status, 404U);
  EXPECT_EQ(get("/v1/devices/gw-2/clauses", token).status, 404U);
  EXPECT_EQ(post("/v1/devices/gw-2/tasks", {{"task", "hostid"}}, token).status, 404U);
  EXPECT_EQ(post("/v1/devices/gw-2/clauses", {{"text", "<a/>"}}, token).status, 404U);
  EXPECT_TRUE(router_.sent.empty());
  EXPECT_EQ(get("/v1/info", token).json["devices"], Json::object());
  // Tags decide about groups: the token could give itself more devices.
  EXPECT_EQ(call("PUT", "/v1/devices/gw-1/tags/site", token, {{"value", "b"}}).status, 403U);
  EXPECT_EQ(call("DELETE", "/v1/devices/gw-1/tags/site", token).status, 403U);
}

TEST_F(HostileTest, ACertificateIsOnlyTakenAsTheServerHasVerifiedIt) {
  TokenWish wish;
  wish.name = "build";
  wish.role = Role::deviceOperator;
  wish.certificate = "build.example";
  auth_->create(wish, [](const runel::Result<NewToken>&) {});
  store_.run();
  EXPECT_EQ(call("GET", "/v1/session", "").status, 401U);
  EXPECT_EQ(
      call("GET", "/v1/session", "", nullptr, {{"x-client-certificate", "build.example"}}).status,
      401U);
  certificate_ = "build.example";
  const Got answer = call("GET", "/v1/session", "");
  EXPECT_EQ(answer.json["way"], "certificate");
  EXPECT_EQ(answer.json["role"], "operator");
}

}  // namespace
}  // namespace runelgw
