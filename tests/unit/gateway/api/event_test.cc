// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <vector>

#include "unit/gateway/api/fixture.h"

namespace runelgw {
namespace {

class EventTest : public ApiTest {
 protected:
  std::shared_ptr<FakeExchange> follow(const std::string& target, const std::string& token,
                                       const Headers& headers = {}) {
    return ask("GET", target, token, "", headers);
  }

  // "TYPE DEVICE" of each event.
  static std::vector<std::string> typesOf(const FakeExchange& exchange) {
    std::vector<std::string> types;
    for (const FakeEventStream::Sent& event : exchange.stream->sent) {
      const Json json = Json::parse(event.data);
      EXPECT_EQ(json["type"], event.event);
      EXPECT_EQ(std::to_string(json["id"].get<std::uint64_t>()), event.id);
      types.push_back(event.event + " " +
                      (json["device"].is_null() ? "-" : json["device"].get<std::string>()));
    }
    return types;
  }

  void clause(const std::string& device, const std::string& text) {
    registry_->events().publish(EventType::clause, registry_->find(device)->id, device, text);
  }
};

TEST_F(EventTest, TellsWhatChanges) {
  const auto exchange = follow("/v1/events", admin_);
  ASSERT_NE(exchange->stream, nullptr);
  connect("gw-1");
  disconnect("gw-1");
  const auto types = typesOf(*exchange);
  EXPECT_NE(std::find(types.begin(), types.end(), "added gw-1"), types.end());
  EXPECT_NE(std::find(types.begin(), types.end(), "connected gw-1"), types.end());
  EXPECT_NE(std::find(types.begin(), types.end(), "lost gw-1"), types.end());
  got(exchange);
}

TEST_F(EventTest, RepeatsWhatAClientHasMissed) {
  connect("gw-1");
  const std::uint64_t seen = registry_->events().last();
  connect("gw-2");
  for (const auto& exchange :
       {follow("/v1/events", admin_, {{"last-event-id", std::to_string(seen)}}),
        follow("/v1/events?after=" + std::to_string(seen), admin_)}) {
    const auto types = typesOf(*exchange);
    ASSERT_FALSE(types.empty());
    EXPECT_EQ(types[0], "added gw-2");
    EXPECT_EQ(types.size(), registry_->events().last() - seen);
  }
  const auto old = follow("/v1/events?after=999999999", admin_);
  EXPECT_EQ(typesOf(*old), std::vector<std::string>{"reset -"});
  got(old);
  EXPECT_EQ(got(follow("/v1/events?after=x", admin_)).status, 400U);
}

TEST_F(EventTest, ALimitedTokenHearsOfItsDevicesOnly) {
  makeGroupA();
  const DeviceId inside = connect("gw-1");
  connect("gw-2");
  ASSERT_TRUE(registry_->setTag(inside, "site", "a"));
  const auto exchange = follow("/v1/events", makeToken("ci", Role::admin, {"a"}));
  disconnect("gw-1");
  disconnect("gw-2");
  ASSERT_TRUE(registry_->setAccess({"hostid", "x", true, 0, ""}));
  registry_->problem("no descriptors");
  EXPECT_EQ(typesOf(*exchange), std::vector<std::string>{"lost gw-1"});
}

TEST_F(EventTest, AViewerHearsNoClausesAndNothingOfOthers) {
  connect("gw-1");
  const auto viewer = follow("/v1/events", viewer_);
  const auto everything = follow("/v1/events", admin_);
  clause("gw-1", "<private/>");
  registry_->problem("no descriptors");
  ASSERT_TRUE(registry_->setAccess({"hostid", "x", true, 0, ""}));
  EXPECT_TRUE(typesOf(*viewer).empty());
  EXPECT_EQ(typesOf(*everything),
            (std::vector<std::string>{"clause gw-1", "problem -", "access -"}));
  got(everything);
}

TEST_F(EventTest, AQueryNarrowsTheStream) {
  connect("gw-1");
  connect("gw-2");
  const auto exchange = follow("/v1/events?query=gw-2", admin_);
  disconnect("gw-1");
  disconnect("gw-2");
  registry_->problem("no descriptors");
  EXPECT_EQ(typesOf(*exchange), std::vector<std::string>{"lost gw-2"});
  EXPECT_EQ(got(follow("/v1/events?query=((", admin_)).status, 400U);
}

TEST_F(EventTest, ClausesOfOneDeviceAreAStream) {
  connect("gw-1");
  connect("gw-2");
  const auto exchange =
      follow("/v1/devices/gw-1/clauses", operator_, {{"accept", "text/event-stream"}});
  clause("gw-1", "<a>\xff</a>");
  clause("gw-2", "<b/>");
  disconnect("gw-1");
  EXPECT_EQ(typesOf(*exchange), std::vector<std::string>{"clause gw-1"});
  EXPECT_EQ(Json::parse(exchange->stream->sent[0].data)["text"]["base64"], "PGE+/zwvYT4=");
  got(exchange);
}

TEST_F(EventTest, AStreamEndsWithTheRightsOfItsClient) {
  const auto exchange = follow("/v1/events", viewer_);
  const auto other = follow("/v1/events", admin_);
  ASSERT_TRUE(auth_->revoke(3, [](const std::optional<std::string>&) {}));
  api_->tick();
  EXPECT_TRUE(exchange->stream->ended);
  EXPECT_FALSE(other->stream->ended);
  connect("gw-1");
  EXPECT_TRUE(exchange->stream->sent.empty());
}

TEST_F(EventTest, StreamsAreLimitedAndThoseThatEndedDoNotCount) {
  settings_.mostEventStreamsOfToken = 2;
  restart();
  const auto first = follow("/v1/events", admin_);
  follow("/v1/events", admin_);
  EXPECT_EQ(got(follow("/v1/events", admin_)).status, 429U);
  EXPECT_EQ(got(follow("/v1/events", viewer_)).status, 200U);
  first->stream->ended = true;
  EXPECT_EQ(got(follow("/v1/events", admin_)).status, 200U);
}

}  // namespace
}  // namespace runelgw
