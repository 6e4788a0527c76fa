// SPDX-License-Identifier: Apache-2.0
// Each route with each role.
#include <map>
#include <set>
#include <string>

#include "gateway/api/routes.h"
#include "unit/gateway/api/fixture.h"

namespace runelgw {
namespace {

class RolesTest : public ApiTest {
 protected:
  // The path with a value in each place.
  static std::string pathOf(const RouteInfo& route) {
    std::string path = route.path;
    for (std::size_t begin = path.find('{'); begin != std::string::npos; begin = path.find('{')) {
      path.replace(begin, path.find('}') - begin + 1, "9");
    }
    return path;
  }

  unsigned statusFor(const RouteInfo& route, const std::string& token) {
    const Json body = route.takesBody ? Json::object() : Json(nullptr);
    return call(route.method, pathOf(route), token, body).status;
  }
};

TEST_F(RolesTest, EachRouteIsForItsRoleAndThoseAbove) {
  makeGroupA();
  const std::map<std::string, std::pair<std::string, int>> tokens = {
      {"viewer", {viewer_, 1}},
      {"operator", {operator_, 2}},
      {"admin of a group", {makeToken("limited", Role::admin, {"a"}), 3}},
      {"admin of some kinds", {makeToken("kinds", Role::admin, {}, {"look"}), 3}},
      {"unlimited admin", {admin_, 4}},
  };
  const std::map<std::string, int> needs = {
      {"none", 0}, {"viewer", 1}, {"operator", 2}, {"admin", 3}, {"unlimited admin", 4}};
  std::size_t refused = 0;
  std::size_t passed = 0;
  for (const RouteInfo& route : apiRoutes()) {
    for (const auto& [name, token] : tokens) {
      const Got answer =
          call(route.method, pathOf(route), token.first, route.takesBody ? Json::object() : Json());
      // A refusal by the role names the role. The handler may refuse for other reasons.
      const bool byRole = answer.status == 403 &&
                          answer.json.value("detail", "") == "this needs the role " + route.role;
      EXPECT_EQ(byRole, token.second < needs.at(route.role))
          << route.operationId << " as " << name << ": " << answer.status;
      EXPECT_NE(answer.status, 401U) << route.operationId;
      ++(byRole ? refused : passed);
    }
  }
  EXPECT_GT(refused, 60U);
  EXPECT_GT(passed, 60U);
}

TEST_F(RolesTest, WithoutATokenOnlyOpenRoutesAnswer) {
  authSettings_.failureRate = {1000, 1000};
  restart();
  for (const RouteInfo& route : apiRoutes()) {
    const unsigned status = statusFor(route, "");
    if (route.role == "none") {
      EXPECT_NE(status, 401U) << route.operationId;
    } else {
      EXPECT_EQ(status, 401U) << route.operationId;
      EXPECT_EQ(statusFor(route, "rgw_" + std::string(43, 'A')), 401U) << route.operationId;
    }
  }
}

TEST_F(RolesTest, TheOpenRoutesAreTheseOnly) {
  std::set<std::string> open;
  for (const RouteInfo& route : apiRoutes()) {
    if (route.role == "none") {
      open.insert(route.operationId);
    }
  }
  EXPECT_EQ(open, (std::set<std::string>{"getHealth", "getReadiness", "getOpenApi", "logIn"}));
}

TEST_F(RolesTest, EachRouteThatIsNotAGetIsRecorded) {
  for (const RouteInfo& route : apiRoutes()) {
    EXPECT_EQ(route.changes, route.method != "GET") << route.operationId;
  }
}

TEST_F(RolesTest, TheServiceRoutesAnswer) {
  EXPECT_EQ(call("GET", "/healthz", "").text, "ok\n");
  EXPECT_EQ(call("GET", "/readyz", "").status, 200U);
  const Got metrics = get("/metrics", viewer_);
  EXPECT_EQ(metrics.status, 200U);
  EXPECT_NE(metrics.text.find("runelgw_devices{state=\"online\"} 0"), std::string::npos);
  EXPECT_EQ(call("GET", "/v1/openapi.json", "").text, openApiDocument());
  connect("gw-1");
  const Got info = get("/v1/info");
  EXPECT_EQ(info.json["devices"]["online"], 1);
}

TEST_F(RolesTest, IsNotReadyWithAReason) {
  notReady_ = "the gateway is starting";
  const Got answer = call("GET", "/readyz", "");
  EXPECT_EQ(answer.status, 503U);
  EXPECT_EQ(answer.json["detail"], "the gateway is starting");
  notReady_.reset();
  store_.stateNow.connected = false;
  EXPECT_EQ(call("GET", "/readyz", "").status, 503U);
}

TEST_F(RolesTest, MetricsNeedNoTokenIfTheOperatorWantsIt) {
  EXPECT_EQ(call("GET", "/metrics", "").status, 401U);
  settings_.openMetrics = true;
  restart();
  EXPECT_EQ(call("GET", "/metrics", "").status, 200U);
  EXPECT_EQ(call("GET", "/v1/info", "").status, 401U);
}

TEST_F(RolesTest, AWebSocketIsHandedOverWithItsPermit) {
  makeGroupA();
  const DeviceId inside = connect("gw-1");
  const DeviceId outside = connect("gw-2");
  ASSERT_TRUE(registry_->setTag(inside, "site", "a"));
  const std::string token = makeToken("ci", Role::deviceOperator, {"a"}, {"look", "write"});
  EXPECT_EQ(get("/v1/attach", token).status, 400U);
  const Headers headers = {{"upgrade", "websocket"},
                           {"connection", "Upgrade"},
                           {"sec-websocket-key", "dGhlIHNhbXBsZSBub25jZQ=="},
                           {"sec-websocket-version", "13"}};
  ask("GET", "/v1/attach", token, "", headers);
  ASSERT_NE(attached_, nullptr);
  EXPECT_EQ(attached_->label(), "token ci");
  EXPECT_TRUE(attached_->maySee(inside));
  EXPECT_FALSE(attached_->maySee(outside));
  EXPECT_FALSE(attached_->maySee(999));
  EXPECT_TRUE(attached_->may(TaskKind::write, inside));
  EXPECT_FALSE(attached_->may(TaskKind::write, outside));
  EXPECT_FALSE(attached_->may(TaskKind::run, inside));
  const std::size_t before = store_.audit.size();
  attached_->record("read", inside, answered(""));
  attached_->record("write", inside, {Outcome::unknown, Reason::lost, "it was lost", {}});
  ASSERT_EQ(store_.audit.size(), before + 1);
  EXPECT_EQ(store_.audit.back().what, "attach: write");
  EXPECT_EQ(store_.audit.back().devices, "gw-1");
  EXPECT_EQ(store_.audit.back().who, "token ci");
  EXPECT_EQ(store_.audit.back().outcome, "unknown whether it ran (lost)");
  EXPECT_TRUE(attached_->valid());
  ASSERT_TRUE(auth_->revoke(4, [](const std::optional<std::string>&) {}));
  EXPECT_FALSE(attached_->valid());
  EXPECT_FALSE(attached_->may(TaskKind::write, inside));
}

}  // namespace
}  // namespace runelgw
