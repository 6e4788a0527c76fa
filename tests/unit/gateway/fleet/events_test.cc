// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/events.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using runelgw::Event;
using runelgw::Events;
using runelgw::EventType;

std::int64_t fixedTime() {
  return 1234;
}

std::vector<std::uint64_t> idsOf(const std::vector<Event>& events) {
  std::vector<std::uint64_t> ids;
  for (const Event& event : events) {
    ids.push_back(event.id);
  }
  return ids;
}

TEST(GatewayEvents, AreNumberedAndDelivered) {
  Events events(fixedTime, 100);
  std::vector<Event> seen;
  const auto subscription = events.subscribe([&](const Event& event) { seen.push_back(event); });
  EXPECT_EQ(99u, events.last());
  events.publish(EventType::connected, 7, "gw-7", "10.0.0.1:5");
  events.publish(EventType::lost, 7, "gw-7", "closed");
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(100u, seen[0].id);
  EXPECT_EQ(1234, seen[0].time);
  EXPECT_EQ(EventType::connected, seen[0].type);
  EXPECT_EQ(7u, seen[0].device);
  EXPECT_EQ("gw-7", seen[0].name);
  EXPECT_EQ("closed", seen[1].text);
  EXPECT_EQ(101u, events.last());
}

TEST(GatewayEvents, ASubscriptionEndsWithItsObject) {
  Events events(fixedTime);
  int calls = 0;
  {
    const auto subscription = events.subscribe([&](const Event&) { ++calls; });
    events.publish(EventType::problem, 0, "", "");
    EXPECT_EQ(1u, events.subscribers());
  }
  EXPECT_EQ(0u, events.subscribers());
  events.publish(EventType::problem, 0, "", "");
  EXPECT_EQ(1, calls);
}

TEST(GatewayEvents, MissedEventsAreReplayed) {
  Events events(fixedTime, 5);
  for (int count = 0; count < 4; ++count) {
    events.publish(EventType::changed, 1, "a", "");
  }
  EXPECT_EQ((std::vector<std::uint64_t>{7, 8}), idsOf(events.after(6).events));
  EXPECT_EQ((std::vector<std::uint64_t>{5, 6, 7, 8}), idsOf(events.after(4).events));
  EXPECT_TRUE(events.after(8).events.empty());
  EXPECT_FALSE(events.after(8).tooOld);
}

TEST(GatewayEvents, WhatIsGoneOrWasNeverIsToldAsTooOld) {
  Events events(fixedTime, 5, {3, 1000});
  EXPECT_FALSE(events.after(4).tooOld);
  EXPECT_TRUE(events.after(3).tooOld);  // of a process before this one
  for (int count = 0; count < 5; ++count) {
    events.publish(EventType::changed, 1, "a", "");  // 5 to 9, kept are 7 to 9
  }
  EXPECT_TRUE(events.after(5).tooOld);
  EXPECT_TRUE(events.after(5).events.empty());
  EXPECT_FALSE(events.after(6).tooOld);
  EXPECT_EQ((std::vector<std::uint64_t>{7, 8, 9}), idsOf(events.after(6).events));
  EXPECT_TRUE(events.after(10).tooOld);
  EXPECT_TRUE(events.after(~std::uint64_t{0}).tooOld);
  EXPECT_TRUE(events.after(0).tooOld);
}

TEST(GatewayEvents, TheirTextsAreBounded) {
  Events events(fixedTime, 1, {1000, 100});
  for (int count = 0; count < 10; ++count) {
    events.publish(EventType::clause, 1, "name", std::string(30, 'x'));  // 34 bytes
  }
  EXPECT_EQ((std::vector<std::uint64_t>{9, 10}), idsOf(events.after(8).events));
  EXPECT_TRUE(events.after(7).tooOld);
  events.publish(EventType::clause, 1, "name", std::string(200, 'x'));  // alone too large
  EXPECT_TRUE(events.after(10).tooOld);
  EXPECT_FALSE(events.after(11).tooOld);
}

TEST(GatewayEvents, HandlersMayPublishSubscribeAndEnd) {
  Events events(fixedTime);
  std::vector<std::string> seen;
  Events::Subscription late;
  Events::Subscription first = events.subscribe([&](const Event& event) {
    seen.push_back("first " + event.text);
    if (event.text == "a") {
      events.publish(EventType::changed, 1, "x", "b");
      late = events.subscribe([&](const Event& next) { seen.push_back("late " + next.text); });
    } else {
      first = {};  // within its own call
    }
  });
  const auto second =
      events.subscribe([&](const Event& event) { seen.push_back("second " + event.text); });
  events.publish(EventType::changed, 1, "x", "a");
  events.publish(EventType::changed, 1, "x", "c");
  EXPECT_EQ((std::vector<std::string>{"first a", "second a", "first b", "second b", "late b",
                                      "second c", "late c"}),
            seen);
}

TEST(GatewayEvents, EachTypeHasAName) {
  EXPECT_STREQ("added", nameOf(EventType::added));
  EXPECT_STREQ("quarantined", nameOf(EventType::quarantined));
  EXPECT_STREQ("clause", nameOf(EventType::clause));
  EXPECT_STREQ("operation", nameOf(EventType::operation));
  EXPECT_STREQ("problem", nameOf(EventType::problem));
}

}  // namespace
