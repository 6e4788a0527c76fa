// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/tag_rules.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using runelgw::Device;
using runelgw::Groups;
using runelgw::TagRules;

std::string refusalOf(const runel::Result<void>& result) {
  return result ? "" : result.error().text();
}

Device taggedDevice() {
  Device device;
  device.name = "gw-1";
  device.tags = {{"site", "berlin"}, {"ring", "2"}};
  device.ruleTags = {"ring"};
  return device;
}

TEST(GatewayTagRules, ARuleSetsItsTagOnTheDevicesOfItsQuery) {
  Groups groups;
  TagRules rules;
  ASSERT_EQ("", refusalOf(rules.set({"r", "site=berlin", "country", "de"}, groups)));
  const auto tags = rules.tagsFor(taggedDevice(), {});
  ASSERT_EQ(1u, tags.size());
  EXPECT_EQ("de", tags.at("country").value);
  EXPECT_EQ("r", tags.at("country").rule);
  Device other = taggedDevice();
  other.tags["site"] = "bonn";
  EXPECT_TRUE(rules.tagsFor(other, {}).empty());
}

TEST(GatewayTagRules, ATagOfAPersonStays) {
  Groups groups;
  TagRules rules;
  ASSERT_EQ("", refusalOf(rules.set({"r", "@all", "site", "bonn"}, groups)));
  EXPECT_TRUE(rules.tagsFor(taggedDevice(), {}).empty());
}

TEST(GatewayTagRules, TheFirstRuleByNameWins) {
  Groups groups;
  TagRules rules;
  ASSERT_EQ("", refusalOf(rules.set({"b", "@all", "ring", "9"}, groups)));
  ASSERT_EQ("", refusalOf(rules.set({"a", "gw-*", "ring", "1"}, groups)));
  EXPECT_EQ("1", rules.tagsFor(taggedDevice(), {}).at("ring").value);
  EXPECT_TRUE(rules.remove("a"));
  EXPECT_FALSE(rules.remove("a"));
  EXPECT_EQ("9", rules.tagsFor(taggedDevice(), {}).at("ring").value);
}

TEST(GatewayTagRules, RulesDoNotSeeTheTagsOfRules) {
  Groups groups;
  TagRules rules;
  ASSERT_EQ("", refusalOf(rules.set({"a", "!ring=2", "ring", "2"}, groups)));
  ASSERT_EQ("", refusalOf(rules.set({"b", "ring=2", "x", "1"}, groups)));
  const auto tags = rules.tagsFor(taggedDevice(), {});  // the same for each evaluation
  EXPECT_EQ(1u, tags.count("ring"));
  EXPECT_EQ(0u, tags.count("x"));
}

TEST(GatewayTagRules, InvalidRulesAreRefused) {
  Groups groups;
  TagRules rules;
  EXPECT_NE("", refusalOf(rules.set({"", "@all", "a", "b"}, groups)));
  EXPECT_NE("", refusalOf(rules.set({"r", "@all", "a b", "b"}, groups)));
  EXPECT_NE("", refusalOf(rules.set({"r", "@all", "a", "b\n"}, groups)));
  EXPECT_NE("", refusalOf(rules.set({"r", "@all", "a", std::string(257, 'x')}, groups)));
  EXPECT_EQ("at character 2: ')' without '('", refusalOf(rules.set({"r", "a)", "a", "b"}, groups)));
  EXPECT_EQ("no group 'g'", refusalOf(rules.set({"r", "@g", "a", "b"}, groups)));
  EXPECT_TRUE(rules.empty());
  for (std::size_t count = 0; count < TagRules::kMostRules; ++count) {
    ASSERT_EQ("", refusalOf(rules.set({"r" + std::to_string(count), "@all", "a", ""}, groups)));
  }
  EXPECT_EQ("more than 200 rules", refusalOf(rules.set({"r", "@all", "a", "b"}, groups)));
  EXPECT_EQ("", refusalOf(rules.set({"r0", "x", "a", "b"}, groups)));  // replaces
}

TEST(GatewayTagRules, KnowsItsGroupsAndWhetherTimeMatters) {
  Groups groups;
  ASSERT_TRUE(groups.set("old", "seen>7d"));
  TagRules rules;
  EXPECT_FALSE(rules.dependOnTime(groups));
  ASSERT_EQ("", refusalOf(rules.set({"r", "a,@old", "asleep", "yes"}, groups)));
  EXPECT_TRUE(rules.uses("old"));
  EXPECT_FALSE(rules.uses("a"));
  EXPECT_TRUE(rules.dependOnTime(groups));
  EXPECT_EQ("asleep", rules.all().at(0).tag);
}

}  // namespace
